#pragma once

#include <string>

#include "quarrystone/Value.h"

namespace qs::sandbox {

// One answer of the sandbox, decided without any network: the HTTP layer
// applies it and then writes `event` to the event log.
struct HttpOutcome {
  int status = 200;
  std::string body;
  // With the charset spelled out the packaged HTTP server leaves these small
  // answers uncompressed; for bare "application/json" it would run its
  // slowest brotli setting on every answer, about a millisecond each, which
  // no production collector spends on a few hundred bytes.
  std::string contentType = "application/json; charset=utf-8";
  double delaySeconds = 0;      // wait this long before answering
  bool dropConnection = false;  // send the headers, then close without a body
  Value event;                  // one JSON line for the event log; null logs nothing
};

}  // namespace qs::sandbox
