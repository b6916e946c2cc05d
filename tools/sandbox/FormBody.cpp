#include "FormBody.h"

namespace qs::sandbox {

Parsed<FormBody> FormBody::parse(std::string_view body) {
  FormBody form;
  while (!body.empty()) {
    const std::size_t amp = body.find('&');
    const std::string_view pair = body.substr(0, amp);
    body = amp == std::string_view::npos ? std::string_view{} : body.substr(amp + 1);
    if (pair.empty()) continue;

    const std::size_t eq = pair.find('=');
    if (eq == std::string_view::npos) return Parsed<FormBody>::fail("form pair without '='");
    const std::string_view key = pair.substr(0, eq);
    if (key.empty() || key.size() > kMaxKeyLength) {
      return Parsed<FormBody>::fail("form key empty or too long");
    }
    if (form.fields.size() == kMaxFields) return Parsed<FormBody>::fail("too many form fields");
    if (!form.fields.emplace(std::string(key), std::string(pair.substr(eq + 1))).second) {
      return Parsed<FormBody>::fail("form field '" + std::string(key) + "' repeated");
    }
  }
  return Parsed<FormBody>::ok(std::move(form));
}

std::string_view FormBody::get(std::string_view key) const {
  const auto it = fields.find(key);
  return it == fields.end() ? std::string_view{} : std::string_view(it->second);
}

}  // namespace qs::sandbox
