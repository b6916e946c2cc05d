#include "quarrystone/PortableServices.h"

namespace qs {

namespace {

// A record archives as a CBOR map of its coder keys inside a small envelope
// that names the format and its version, so other bytes are recognised.
class CborKeyedArchiver final : public KeyedArchiver {
 public:
  Bytes archive(const Value& root) override {
    Value envelope = Value::object();
    envelope["$archiver"] = "QSKeyedArchive";
    envelope["$version"] = 1;
    envelope["$root"] = root;
    return Value::to_cbor(envelope);
  }
  // The parser's no-exceptions mode still throws for an array or map that
  // declares more elements than a vector could hold; such bytes are not an
  // archive either, and must not end the host.
  std::optional<Value> unarchive(const Bytes& bytes) override {
    Value envelope;
    try {
      envelope = Value::from_cbor(bytes, /*strict=*/true, /*allow_exceptions=*/false);
    } catch (const Value::exception&) {
      return std::nullopt;
    }
    if (envelope.is_discarded() || !envelope.is_object()) return std::nullopt;
    auto tag = envelope.find("$archiver");
    auto version = envelope.find("$version");
    auto root = envelope.find("$root");
    if (tag == envelope.end() || *tag != "QSKeyedArchive" || version == envelope.end() ||
        *version != 1 || root == envelope.end()) {
      return std::nullopt;
    }
    return *root;
  }
};

}  // namespace

std::shared_ptr<KeyedArchiver> makeCborArchiver() { return std::make_shared<CborKeyedArchiver>(); }

}  // namespace qs
