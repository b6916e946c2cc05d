#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qs {

// The user's preferred languages from the locale variables, as language
// identifiers ("en-US"), most preferred first, without repeats: the
// colon-separated LANGUAGE list, then the first set one of LC_ALL,
// LC_MESSAGES and LANG. Codesets and modifiers are dropped; "C" and "POSIX"
// mean "en". Null or empty variables are skipped; never empty (falls back to
// "en").
std::vector<std::string> preferredLanguagesFrom(const char* language, const char* lcAll,
                                                const char* lcMessages, const char* lang);

// The KEY=value assignments of an os-release file, with shell quoting and
// backslash escapes removed. Comments, blank and malformed lines are skipped.
std::map<std::string, std::string> parseOsRelease(std::string_view text);

}  // namespace qs
