// Device facts on a Linux desktop: uname, os-release, the host name and the
// locale variables; screen and bundle are what the host declares.
#include "LinuxDeviceInfo.h"

#include <sys/random.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include <fmt/format.h>

#include "quarrystone/LinuxPlatform.h"

namespace qs {

namespace {

// "en_US.UTF-8@euro" -> "en-US"; "" when the text is not a locale name.
std::string languageIdentifier(std::string_view locale) {
  locale = locale.substr(0, locale.find_first_of(".@"));
  if (locale == "C" || locale == "POSIX") return "en";
  std::string_view language = locale.substr(0, locale.find('_'));
  std::string_view region =
      language.size() < locale.size() ? locale.substr(language.size() + 1) : std::string_view();
  auto letters = [](std::string_view s) {
    for (char c : s) {
      if (std::isalpha(static_cast<unsigned char>(c)) == 0) return false;
    }
    return true;
  };
  if (language.size() < 2 || language.size() > 3 || !letters(language)) return "";
  std::string id;
  for (char c : language) id += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (!region.empty()) {
    bool numeric =
        region.size() == 3 && region.find_first_not_of("0123456789") == std::string::npos;
    if (!numeric && (region.size() != 2 || !letters(region))) return id;
    id += '-';
    for (char c : region) id += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return id;
}

std::string readFile(const char* path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// 128 random bits as a version-4 UUID in upper-case canonical form.
std::string randomUuid() {
  std::array<std::uint8_t, 16> bytes{};
  std::size_t filled = 0;
  while (filled < bytes.size()) {
    ssize_t n = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
    if (n <= 0) break;
    filled += static_cast<std::size_t>(n);
  }
  if (filled < bytes.size()) {
    // getrandom cannot fail on a kernel this library supports; stay random anyway.
    std::random_device device;
    for (auto& b : bytes) b = static_cast<std::uint8_t>(device());
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

// Thread contract: every member may be called from any thread. The facts are
// read once, at construction, and do not change afterwards.
class LinuxDeviceInfo final : public DeviceInfo {
 public:
  LinuxDeviceInfo(BundleInfo bundle, std::optional<ScreenInfo> screen)
      : bundle_(std::move(bundle)), screen_(screen) {
    struct utsname names {};
    if (uname(&names) == 0) {
      machine_ = names.machine;
      systemName_ = names.sysname;
      systemVersion_ = names.release;
    }
    std::string osRelease = readFile("/etc/os-release");
    if (osRelease.empty()) osRelease = readFile("/usr/lib/os-release");
    auto fields = parseOsRelease(osRelease);
    if (auto it = fields.find("NAME"); it != fields.end() && !it->second.empty()) {
      systemName_ = it->second;
    }
    if (auto it = fields.find("VERSION_ID"); it != fields.end() && !it->second.empty()) {
      systemVersion_ = it->second;
    }
    std::array<char, 256> host{};
    if (gethostname(host.data(), host.size() - 1) == 0) deviceName_ = host.data();
    languages_ = preferredLanguagesFrom(std::getenv("LANGUAGE"), std::getenv("LC_ALL"),
                                        std::getenv("LC_MESSAGES"), std::getenv("LANG"));
  }

  std::string machine() override { return machine_; }
  std::string systemName() override { return systemName_; }
  std::string systemVersion() override { return systemVersion_; }
  std::string deviceName() override { return deviceName_; }
  std::optional<ScreenInfo> mainScreen() override { return screen_; }
  // A desktop has no cellular provider.
  std::optional<CarrierInfo> subscriberCarrier() override { return std::nullopt; }
  std::vector<std::string> preferredLanguages() override { return languages_; }
  BundleInfo bundle() override { return bundle_; }
  std::string globallyUniqueString() override { return randomUuid(); }
  std::string newUUID() override { return randomUuid(); }

 private:
  const BundleInfo bundle_;
  const std::optional<ScreenInfo> screen_;
  std::string machine_ = "unknown";
  std::string systemName_ = "Linux";
  std::string systemVersion_;
  std::string deviceName_ = "localhost";
  std::vector<std::string> languages_;
};

}  // namespace

std::vector<std::string> preferredLanguagesFrom(const char* language, const char* lcAll,
                                                const char* lcMessages, const char* lang) {
  std::vector<std::string> locales;
  if (language != nullptr) {
    std::string_view list(language);
    while (!list.empty()) {
      std::size_t colon = list.find(':');
      locales.emplace_back(list.substr(0, colon));
      list = colon == std::string_view::npos ? std::string_view() : list.substr(colon + 1);
    }
  }
  for (const char* value : {lcAll, lcMessages, lang}) {
    if (value != nullptr && *value != '\0') {
      locales.emplace_back(value);
      break;
    }
  }
  std::vector<std::string> ids;
  for (const auto& locale : locales) {
    std::string id = languageIdentifier(locale);
    if (!id.empty() && std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  }
  if (ids.empty()) ids.emplace_back("en");
  return ids;
}

std::map<std::string, std::string> parseOsRelease(std::string_view text) {
  std::map<std::string, std::string> fields;
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.front())) != 0) {
      line.remove_prefix(1);
    }
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back())) != 0) {
      line.remove_suffix(1);
    }
    std::size_t equals = line.find('=');
    if (line.empty() || line.front() == '#' || equals == 0 || equals == std::string_view::npos) {
      continue;
    }
    std::string key(line.substr(0, equals));
    std::string_view raw = line.substr(equals + 1);
    std::string value;
    char quote = 0;
    bool wellFormed = true;
    for (std::size_t i = 0; i < raw.size(); ++i) {
      char c = raw[i];
      if (quote == 0 && (c == '"' || c == '\'')) {
        quote = c;
      } else if (c == quote) {
        quote = 0;
      } else if (c == '\\' && quote != '\'' && i + 1 < raw.size()) {
        value += raw[++i];
      } else if (quote == 0 && std::isspace(static_cast<unsigned char>(c)) != 0) {
        wellFormed = false;  // an unquoted blank is not a single assignment
        break;
      } else {
        value += c;
      }
    }
    if (wellFormed && quote == 0) fields[key] = value;
  }
  return fields;
}

std::shared_ptr<DeviceInfo> makeLinuxDeviceInfo(BundleInfo bundle,
                                                std::optional<ScreenInfo> screen) {
  return std::make_shared<LinuxDeviceInfo>(std::move(bundle), screen);
}

}  // namespace qs
