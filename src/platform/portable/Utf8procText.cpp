#include <utf8proc.h>

#include <algorithm>

#include "quarrystone/PortableServices.h"

namespace qs {

namespace {

// Walks the text code point by code point and asks utf8proc where extended
// grapheme clusters break. An invalid byte counts as a cluster of its own.
class Utf8procText final : public Text {
 public:
  std::vector<std::size_t> graphemeStarts(std::string_view utf8) override {
    std::vector<std::size_t> starts;
    // ASCII text (a challenge's uuid) breaks between every two characters
    // except CR LF, without the property tables, which a first use would
    // have to fault in.
    if (std::all_of(utf8.begin(), utf8.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
      starts.reserve(utf8.size());
      for (std::size_t i = 0; i < utf8.size(); ++i) {
        if (i == 0 || utf8[i - 1] != '\r' || utf8[i] != '\n') starts.push_back(i);
      }
      return starts;
    }
    utf8proc_int32_t state = 0;
    utf8proc_int32_t previous = -1;
    std::size_t i = 0;
    while (i < utf8.size()) {
      utf8proc_int32_t cp = 0;
      auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(utf8.data() + i),
                                     static_cast<utf8proc_ssize_t>(utf8.size() - i), &cp);
      bool invalid = length <= 0;
      if (invalid) {
        length = 1;
        cp = -1;
      }
      if (previous < 0 || cp < 0 || utf8proc_grapheme_break_stateful(previous, cp, &state)) {
        starts.push_back(i);
        if (cp < 0) state = 0;
      }
      previous = cp;
      i += static_cast<std::size_t>(length);
    }
    return starts;
  }
};

}  // namespace

std::shared_ptr<Text> makeUtf8procText() { return std::make_shared<Utf8procText>(); }

}  // namespace qs
