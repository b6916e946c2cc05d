#include "quarrystone/QSFieldsMapping.h"

namespace qs {

const char* const QSFieldsMapping_VERSION = "6";

#define QS_DEFINE_FIELD(constant, code) const char* const constant = code;
QS_FIELDS_MAPPING_LIST(QS_DEFINE_FIELD)
#undef QS_DEFINE_FIELD

namespace {

#define QS_FIELD_ROW(constant, code) {#constant, code},
constexpr QSFieldEntry kFieldsTable[] = {QS_FIELDS_MAPPING_LIST(QS_FIELD_ROW)};
#undef QS_FIELD_ROW

}  // namespace

std::span<const QSFieldEntry> QSFieldsMappingTable() { return kFieldsTable; }

}  // namespace qs
