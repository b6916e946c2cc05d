#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "quarrystone/http/Protection.h"

namespace qs::http {

// A host's libcurl request handed to the library. libcurl lets nobody read
// back a handle's header list or callbacks, so they come here instead of
// being set on the handle; everything else (URL, method, body given with
// CURLOPT_POSTFIELDS or CURLOPT_COPYPOSTFIELDS, timeouts, TLS options) the
// host sets on the handle as usual.
struct CurlRequest {
  CURL* easy = nullptr;           // the host's; not used by anyone else during the call
  curl_slist* headers = nullptr;  // the host's header list; read, never changed or freed
  // Receives the final response's body. Return `size` to go on; anything
  // else aborts the transfer.
  std::function<std::size_t(const char* data, std::size_t size)> onBody;
  // Receives the final response's header lines (status line included), as
  // CURLOPT_HEADERFUNCTION would. Optional.
  std::function<std::size_t(const char* data, std::size_t size)> onHeader;
  // A body the host streams (CURLOPT_READFUNCTION's job): fill `buffer`,
  // return the bytes written, 0 at the end. Optional. The request can be
  // sent again after a solve only when `rewind` is set and returns true.
  std::function<std::size_t(char* buffer, std::size_t size)> read;
  std::function<bool()> rewind;
};

struct CurlResult {
  Outcome outcome = Outcome::Failed;
  CURLcode code = CURLE_OK;  // of the last transfer
  long status = 0;           // of the response the host received
  std::string detail;        // why, for the outcomes that need a reason
};

// Sends the request; for a declared domain with the manager's headers added
// to a copy of the host's list, and with a block answer handled (see
// Outcome). Blocks the calling thread until the outcome, which may include a
// captcha the user takes minutes over (up to the deadline). Refuses, with
// Failed and a reason, to run on the GTK thread, which must show the page:
// use performAsync there.
// On return the handle's header list, write, header and read callbacks are
// the library's defaults again, and following redirects is off: a redirect
// from the host's backend elsewhere must not carry the token, so it comes
// back to the host as a 3xx response.
CurlResult perform(const std::shared_ptr<Protection>& protection, CurlRequest request);

// The same without blocking: the transfers run on a worker thread, the rest
// on the calling thread's thread-default GLib context, where `done` is
// called. `request` and what it points to must live until then. Returns a
// function that cancels from that context (done then hears Cancelled once
// the transfer under way has ended).
std::function<void()> performAsync(const std::shared_ptr<Protection>& protection,
                                   CurlRequest request, std::function<void(CurlResult)> done);

}  // namespace qs::http
