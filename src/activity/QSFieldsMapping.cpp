#include "quarrystone/QSFieldsMapping.h"

namespace qs {

namespace {

#define QS_FIELD_ROW(constant, code) {#constant, code},
constexpr QSFieldEntry kFieldsTable[] = {QS_FIELDS_MAPPING_LIST(QS_FIELD_ROW)};
#undef QS_FIELD_ROW

}  // namespace

std::span<const QSFieldEntry> QSFieldsMappingTable() { return kFieldsTable; }

}  // namespace qs
