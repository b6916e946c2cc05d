#include "QsCommands.h"

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <unordered_map>

#include <fmt/format.h>

#include "activity/AppActivity.h"
#include "activity/QSUUID.h"
#include "activity/QSUtils.h"
#include "collector/CollectorResponse.h"
#include "collector/QSStorage.h"
#include "crypto/Base64.h"
#include "crypto/SHA256_CBC.h"
#include "quarrystone/Constants.h"
#include "quarrystone/LinuxPlatform.h"
#include "quarrystone/QSFieldsMapping.h"

namespace qs::tool {

const char* const kUsage =
    "usage: qs <command> [options]\n"
    "\n"
    "  encrypt --key KEY     bytes on stdin -> base64 ciphertext on stdout\n"
    "  decrypt --key KEY     base64 ciphertext on stdin -> plaintext bytes on stdout\n"
    "  fields                the field code table, one \"NAME CODE\" line per field\n"
    "  parse                 a collector answer on stdin -> its sid, vid, cookie and challenge\n"
    "  inspect --key APPID   a collector request body on stdin -> its pairs and activities\n"
    "  activity --state N    an app activity of state N (0-3) built on this machine\n"
    "  help                  this text\n";

namespace {

// Deeper JSON than this is refused rather than printed: printing recurses.
constexpr std::size_t kMaxPrintDepth = 512;

CommandResult failure(std::string reason) { return {1, "", reason + "\n"}; }

CommandResult usageError(std::string_view reason) {
  return {2, "", fmt::format("qs: {}\n{}", reason, kUsage)};
}

// Pretty JSON; bytes that are not UTF-8 are replaced rather than thrown on.
std::string pretty(const Value& value) {
  return value.dump(2, ' ', false, nlohmann::detail::error_handler_t::replace) + "\n";
}

// The parsed JSON, or nullopt when `text` is not JSON or nests too deeply to print.
std::optional<Value> parseJson(std::string_view text) {
  bool tooDeep = false;
  Value::parser_callback_t guard = [&tooDeep](int depth, Value::parse_event_t, Value&) {
    if (static_cast<std::size_t>(depth) > kMaxPrintDepth) tooDeep = true;
    return true;
  };
  Value value = Value::parse(text, guard, false);
  if (value.is_discarded() || tooDeep) return std::nullopt;
  return value;
}

const std::unordered_map<std::string_view, std::string_view>& namesByCode() {
  static const auto* names = [] {
    auto* map = new std::unordered_map<std::string_view, std::string_view>();
    for (const QSFieldEntry& entry : QSFieldsMappingTable()) map->emplace(entry.code, entry.name);
    return map;
  }();
  return *names;
}

std::string annotated(const std::string& code) {
  auto it = namesByCode().find(code);
  return it == namesByCode().end() ? code : fmt::format("{} ({})", code, it->second);
}

Value annotateRecord(const Value& record) {
  if (!record.is_object()) return record;
  Value out = Value::object();
  for (const auto& [key, value] : record.items()) {
    if (key == "t" && value.is_string()) {
      out[key] = annotated(value.get<std::string>());
    } else if (key == "d" && value.is_object()) {
      Value details = Value::object();
      for (const auto& [code, fact] : value.items()) details[annotated(code)] = fact;
      out[key] = std::move(details);
    } else {
      out[key] = value;
    }
  }
  return out;
}

}  // namespace

Value annotateFieldCodes(const Value& value) {
  if (!value.is_array()) return annotateRecord(value);
  Value out = Value::array();
  for (const Value& record : value) out.push_back(annotateRecord(record));
  return out;
}

CommandResult encryptCommand(std::string_view input, std::string_view key) {
  return {0, SHA256_CBC::encryptStringToBase64String(input, key) + "\n", ""};
}

CommandResult decryptCommand(std::string_view input, std::string_view key) {
  auto cipher = base64Decode(input, true);
  if (!cipher) return failure("qs decrypt: the input is not base64");
  if (cipher->empty()) return failure("qs decrypt: the input is empty");
  auto plain = SHA256_CBC::decrypt(*cipher, key);
  if (!plain) return failure("qs decrypt: the ciphertext does not decrypt with this key");
  return {0, std::string(plain->begin(), plain->end()), ""};
}

CommandResult fieldsCommand() {
  CommandResult result;
  for (const QSFieldEntry& entry : QSFieldsMappingTable()) {
    result.out += fmt::format("{} {}\n", entry.name, entry.code);
  }
  return result;
}

CommandResult parseCommand(std::string_view input) {
  // Read as the library reads an answer: anything that is not JSON is an
  // absent body, which gives an empty record.
  std::optional<Value> body;
  if (Value parsed = Value::parse(input, nullptr, false); !parsed.is_discarded()) {
    body = std::move(parsed);
  }
  std::string error;
  auto response = CollectorResponse::initWithCollectorResponse(body, 0, &error);
  if (!response) return failure("qs parse: " + error);

  Value out = Value::object();
  if (response->sid()) out["sid"] = *response->sid();
  if (response->vid()) out["vid"] = *response->vid();
  if (const auto& cookie = response->cookie()) {
    out["cookie"] = {{"name", cookie->name()},
                     {"token", cookie->token()},
                     {"level", std::uint64_t{QSCookie::cookieLevelFrom(cookie->name())}}};
  }
  if (const auto& challenge = response->challenge()) {
    Value coded = Value::object();
    coded["type"] = challenge->type();
    if (challenge->timestamp()) coded["timestamp"] = *challenge->timestamp();
    coded["signedHash"] = challenge->signedHash();
    coded["uuid"] = challenge->uuid();
    out["challenge"] = std::move(coded);
  }
  CommandResult result{0, pretty(out), ""};
  if (!body) result.err = "qs parse: the body is not JSON; it reads as an empty answer\n";
  return result;
}

CommandResult inspectCommand(std::string_view input, std::string_view key) {
  while (!input.empty() && (input.back() == '\n' || input.back() == '\r')) input.remove_suffix(1);
  // Pairs are "k=v" joined by "&" and never escaped: base64 "+", "/" and
  // "=" travel as they are, so a pair splits at its first "=" only.
  Value pairs = Value::object();
  std::optional<std::string> payload;
  for (std::size_t start = 0; !input.empty();) {
    std::size_t amp = input.find('&', start);
    std::string_view pair = input.substr(start, amp - start);
    std::size_t eq = pair.find('=');
    std::string name(pair.substr(0, eq));
    std::string value(eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1));
    if (pairs.contains(name)) {
      return failure(fmt::format("qs inspect: pair \"{}\" appears twice", name));
    }
    if (name == "payload") payload = value;
    pairs[name] = std::move(value);
    if (amp == std::string_view::npos) break;
    start = amp + 1;
  }
  if (!payload) return failure("qs inspect: the body has no payload pair");
  auto plain = SHA256_CBC::decryptBase64StringToString(*payload, key);
  if (!plain) return failure("qs inspect: the payload does not decrypt with this key");
  auto activities = parseJson(*plain);
  if (!activities) return failure("qs inspect: the decrypted payload is not printable JSON");

  Value out = Value::object();
  out["pairs"] = std::move(pairs);
  out["activities"] = annotateFieldCodes(*activities);
  return {0, pretty(out), ""};
}

namespace {

// The library's diagnostic lines are not the tool's output.
class SilentLog final : public Log {
 public:
  using Log::write;
  void write(LogLevel, std::string_view) override {}
};

// A private directory under the system's temporary directory, removed with
// everything in it when this goes out of scope.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::error_code ec;
    std::filesystem::path base = std::filesystem::temp_directory_path(ec);
    if (ec) base = "/tmp";
    std::string pattern = (base / "qs-activity-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  // Empty when the directory could not be made.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace

CommandResult activityCommand(long state) {
  TemporaryDirectory directory;
  if (directory.path().empty()) {
    return failure("qs activity: cannot make a temporary directory for the store");
  }
  Value activity;
  {
    DeploymentSettings settings = DeploymentSettings::fromEnvironment();
    settings.storePath = directory.path() + "/store.sqlite";
    LinuxPlatformOptions options;
    options.bundle.name = "qs";
    options.bundle.shortVersion = QS_SDK_VERSION;
    options.bundle.identifier = "qs";
    options.log = std::make_shared<SilentLog>();
    Platform platform = makeLinuxPlatform(settings, std::move(options));
    auto storage = std::make_shared<QSStorage>(platform.store, platform.archiver, platform.log);
    QSUtils utils(platform, storage);
    QSUUID uuid(platform.device);
    activity = AppActivity(platform, *storage, utils, uuid).collectActivityData(state);
  }
  return {0, pretty(activity), ""};
}

CommandResult runQs(std::span<const std::string> args, const InputReader& readInput) {
  if (args.empty()) return usageError("no command");
  const std::string& command = args[0];
  if (command == "help" || command == "-h" || command == "--help") return {0, kUsage, ""};

  std::optional<std::string> key;
  std::optional<std::string> state;
  for (std::size_t i = 1; i < args.size(); ++i) {
    std::string_view arg = args[i];
    std::optional<std::string>* target = nullptr;
    std::string_view option = arg.substr(0, arg.find('='));
    if (option == "--key") target = &key;
    if (option == "--state") target = &state;
    if (target == nullptr) return usageError(fmt::format("unknown argument \"{}\"", arg));
    if (*target) return usageError(fmt::format("{} given twice", option));
    if (option.size() < arg.size()) {
      *target = std::string(arg.substr(option.size() + 1));
    } else if (i + 1 < args.size()) {
      *target = args[++i];
    } else {
      return usageError(fmt::format("{} needs a value", option));
    }
  }

  const bool takesKey = command == "encrypt" || command == "decrypt" || command == "inspect";
  const bool takesState = command == "activity";
  if (!takesKey && !takesState && command != "fields" && command != "parse") {
    return usageError(fmt::format("unknown command \"{}\"", command));
  }
  if (key && !takesKey) return usageError(fmt::format("{} takes no --key", command));
  if (state && !takesState) return usageError(fmt::format("{} takes no --state", command));
  if (takesKey && !key) return usageError(fmt::format("{} needs --key", command));

  if (command == "fields") return fieldsCommand();
  if (command == "activity") {
    long n = -1;
    if (!state) return usageError("activity needs --state");
    auto [ptr, ec] = std::from_chars(state->data(), state->data() + state->size(), n);
    if (ec != std::errc() || ptr != state->data() + state->size() || n < 0 || n > 3) {
      return usageError("--state takes 0, 1, 2 or 3");
    }
    return activityCommand(n);
  }

  const std::string input = readInput();
  if (command == "encrypt") return encryptCommand(input, *key);
  if (command == "decrypt") return decryptCommand(input, *key);
  if (command == "parse") return parseCommand(input);
  return inspectCommand(input, *key);
}

}  // namespace qs::tool
