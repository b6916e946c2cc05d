#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "quarrystone/Value.h"

namespace qs::tool {

// What one run of the `qs` tool prints and returns. Nothing is written to
// `out` when `status` is not 0.
struct CommandResult {
  int status = 0;
  std::string out;
  std::string err;
};

// Reads all of standard input; called only by commands that take input.
using InputReader = std::function<std::string()>;

// Runs `qs` with its arguments (without the program name). Bad arguments
// give the usage text on stderr and status 2; a failed command status 1 and
// a one-line reason.
CommandResult runQs(std::span<const std::string> args, const InputReader& readInput);

// The commands themselves, on their input.
CommandResult encryptCommand(std::string_view input, std::string_view key);
CommandResult decryptCommand(std::string_view input, std::string_view key);
CommandResult fieldsCommand();
CommandResult parseCommand(std::string_view input);
CommandResult inspectCommand(std::string_view input, std::string_view key);
// Builds the app activity of `state` (0 to 3) on the Linux platform of this
// machine, over a temporary store that is removed afterwards, so that the
// host's persisted state is neither read nor changed.
CommandResult activityCommand(long state);

// `value` with field codes shown with their constant names: the "t" value of
// each record and the keys of its "d" map, as "QS320 (QSFM_DEVICE_MODEL)".
// Codes that are not in the table stay as they are.
Value annotateFieldCodes(const Value& value);

extern const char* const kUsage;

}  // namespace qs::tool
