#include "collector/CollectorResponse.h"

#include <array>
#include <string_view>

#include <fmt/format.h>

#include "quarrystone/Constants.h"

namespace qs {

const char* const kSidCommand = "sid";
const char* const kVidCommand = "vid";
const char* const kBakeCommand = "bake";
const char* const kChallengeCommand = "appc";

namespace {

// No command reads past field 5.
constexpr std::size_t kMaxFields = 6;

// The leading fields of a command split at "|". `count` is the number of
// fields, counted up to kMaxFields (a longer command counts as kMaxFields).
struct CommandFields {
  std::array<std::string_view, kMaxFields> field;
  std::size_t count = 0;
};

CommandFields splitCommand(std::string_view text) {
  CommandFields fields;
  std::size_t start = 0;
  while (fields.count < kMaxFields) {
    std::size_t bar = text.find('|', start);
    fields.field[fields.count++] = text.substr(start, bar - start);
    if (bar == std::string_view::npos) break;
    start = bar + 1;
  }
  return fields;
}

const char* fieldsWord(std::size_t count) { return count == 1 ? "field" : "fields"; }

}  // namespace

std::optional<CollectorResponse> CollectorResponse::initWithCollectorResponse(
    const std::optional<Value>& body, double now, std::string* error) {
  CollectorResponse response;
  if (!body || !body->is_object()) return response;
  auto commands = body->find("do");
  if (commands == body->end() || !commands->is_array()) return response;

  // Reports a command too short for the field it reads; the half-built
  // record is dropped.
  auto tooShort = [error](std::string_view name, std::size_t count, std::size_t needed) {
    if (error != nullptr) {
      *error = fmt::format("collector command \"{}\" has {} {}, field {} is read", name, count,
                           fieldsWord(count), needed);
    }
    return std::nullopt;
  };

  for (const Value& command : *commands) {
    // Only strings are commands; any other element is content we do not know.
    if (!command.is_string()) continue;
    const CommandFields f = splitCommand(command.get_ref<const std::string&>());
    const std::string_view name = f.field[0];
    if (name == kSidCommand || name == kVidCommand) {
      if (f.count < 2) return tooShort(name, f.count, 1);
      (name == kSidCommand ? response.sid_ : response.vid_) = std::string(f.field[1]);
    } else if (name == kBakeCommand && f.count >= 4) {
      // The count check is looser than the read of the time to live.
      if (f.count < 6) return tooShort(name, f.count, 5);
      QSCookie candidate(std::string(f.field[1]), std::string(f.field[3]), Value(f.field[5]), now);
      if (!response.cookie_ || QSCookie::cookieLevelFrom(candidate.name()) >
                                   QSCookie::cookieLevelFrom(response.cookie_->name())) {
        response.cookie_ = std::move(candidate);
      }
    } else if (name == kChallengeCommand && f.count >= 5) {
      response.challenge_.emplace(std::string(f.field[1]), std::string(f.field[2]),
                                  std::string(f.field[3]), std::string(f.field[4]));
    }
  }
  return response;
}

std::string CollectorResponse::description() const {
  return fmt::format("CollectorResponse: sid={} vid={} {}", sid_.value_or("(null)"),
                     vid_.value_or("(null)"), cookie_ ? cookie_->description() : "(null)");
}

Value CollectorResponse::encodeWithCoder() const {
  Value coded = Value::object();
  if (sid_) coded["sid"] = *sid_;
  if (vid_) coded["vid"] = *vid_;
  if (cookie_) coded["cookie"] = cookie_->encodeWithCoder();
  if (challenge_) coded["challenge"] = challenge_->encodeWithCoder();
  return coded;
}

std::optional<CollectorResponse> CollectorResponse::initWithCoder(const Value& coded) {
  if (!coded.is_object()) return std::nullopt;
  CollectorResponse response;
  for (auto [key, target] : {std::pair{"sid", &response.sid_}, std::pair{"vid", &response.vid_}}) {
    auto it = coded.find(key);
    if (it == coded.end() || it->is_null()) continue;
    if (!it->is_string()) return std::nullopt;
    *target = it->get<std::string>();
  }
  if (auto it = coded.find("cookie"); it != coded.end() && !it->is_null()) {
    response.cookie_ = QSCookie::initWithCoder(*it);
    if (!response.cookie_) return std::nullopt;
  }
  if (auto it = coded.find("challenge"); it != coded.end() && !it->is_null()) {
    response.challenge_ = QSChallenge::initWithCoder(*it);
    if (!response.challenge_) return std::nullopt;
  }
  return response;
}

}  // namespace qs
