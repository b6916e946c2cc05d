#pragma once

#include <libsoup/soup.h>

#include <functional>
#include <memory>
#include <string>

#include "quarrystone/http/Protection.h"

namespace qs::http {

// Protection of a host's libsoup 3 requests, in two forms. Both run on the
// thread-default GLib context of the thread that uses the session, never
// block it, and leave requests to undeclared hosts untouched.

// --- The protected send --------------------------------------------------

// soup_session_send_and_read_async() with the challenge handled: for a
// declared domain the message carries the manager's headers and, when the
// backend answers with the service's block or captcha, the page is shown over
// the host window; `callback` runs only once the challenge has ended, on the
// caller's thread-default context, with the session as source object. After
// a solved captcha the message is sent once more with the fresh token, and
// ends with that answer. Cancelling `cancellable` closes an open page and
// ends the call with G_IO_ERROR_CANCELLED. `message` must not be queued
// elsewhere meanwhile.
//
// A finished SoupMessage can be sent again, but libsoup consumes and closes
// its request body: a message with a body can be re-sent only when the body
// was set through setReplayableBody(); otherwise a solve ends NotReplayable
// with the block answer, and the fresh token is in place for the host's own
// next request.
void sendAndReadAsync(const std::shared_ptr<Protection>& protection, SoupSession* session,
                      SoupMessage* message, int ioPriority, GCancellable* cancellable,
                      GAsyncReadyCallback callback, gpointer userData);

// The body of the answer the message holds (transfer full), with the
// outcome in `outcome` (may be null). Null with `error` set when the outcome
// is Failed (the transfer's own error) or Cancelled (G_IO_ERROR_CANCELLED).
GBytes* sendAndReadFinish(GAsyncResult* result, Outcome* outcome, GError** error);

// soup_message_set_request_body_from_bytes(), remembered so that a protected
// send can send the body again after a solve.
void setReplayableBody(SoupMessage* message, const char* contentType, GBytes* body);
// soup_message_set_request_body() for a stream the host reads its body from,
// remembered likewise: it can be sent again only when `stream` is seekable
// (GSeekable that can seek); the retry rereads it from the position it had
// here.
// `length` is the byte count or -1 when unknown.
void setReplayableBody(SoupMessage* message, const char* contentType, GInputStream* stream,
                       gssize length);

// --- The attached session ------------------------------------------------

// What became of a message of a declared domain that came back with the
// service's block or captcha. Called on the session's context once the
// challenge has ended: Blocked (at once; the block page stays until the user
// closes it), ClosedByUser, TimedOut, CaptchaFailed, Failed, or
// CaptchaSolved, which here means the fresh token is in place and the host
// may send the request again (the attached form never re-sends a message).
// `message` is the host's, alive for the call.
using SoupChallengeReport =
    std::function<void(SoupMessage* message, Outcome outcome, const std::string& detail)>;

// Attaches the protection to `session` (replacing an earlier attachment):
// every message queued for a declared domain gets the manager's headers,
// and one that comes back blocked starts the challenge, which `report` hears
// about. The host's own call still receives the block answer. The block is
// seen once the host has read the response body (libsoup offers the body to
// nobody but its reader; a session logger of the library taps it, up to
// 256 KiB).
// Messages sent through sendAndReadAsync() are left to it. Call on the
// session's thread; lasts as long as the session or until detach().
void attach(const std::shared_ptr<Protection>& protection, SoupSession* session,
            SoupChallengeReport report);
void detach(SoupSession* session);

}  // namespace qs::http
