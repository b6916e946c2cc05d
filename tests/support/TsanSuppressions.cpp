// Sanitizer suppressions, linked into every test executable (there can be
// one definition of each per executable).
//
// GLib, GTK and WebKit synchronise their threads with futexes of their own,
// which ThreadSanitizer cannot see, so memory that they hand between threads
// looks racy inside their own (uninstrumented) calls. For GLib only reports
// from calls it makes itself are dropped, so callbacks it runs into our code
// stay checked. The packaged loopback HTTP server used by adapter tests is
// uninstrumented in the same way; its reports concern its own threads.
//
// The web view tests (QS_TSAN_TOOLKIT_TESTS) load the whole toolkit stack:
// fonts, images, X11 and xcb share locks with GLib, so ignoring only some of
// the libraries' calls leaves lock and unlock unpaired. There, races inside
// those libraries are dropped instead; the code under test runs on the GTK
// thread alone. The libsoup tests run TLS through GIO's GnuTLS backend and
// its proxy lookup, whose worker threads are synchronised inside those
// libraries in the same way.
//
// OpenSSL's libcrypto, uninstrumented as well, opens, reads and closes its
// configuration and trust files on whichever thread makes a TLS context (the
// HTTP client's warm-up thread among them) without the sanitizer seeing the
// close; when the descriptor number is reused by another thread, the two
// look like a race on one descriptor. Reports with libcrypto on either side
// are dropped.
//
// The GIO reachability test registers a network monitor type of its own.
// GObject ends that registration with a tail call that unlocks its type
// lock, so the unlock seems to come from the test while the matching lock,
// taken inside GObject, was dropped: an unpaired unlock, reported for that
// one function only.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
#ifdef QS_TSAN_TOOLKIT_TESTS
  return "race:libglib-2.0.so\n"
         "race:libgobject-2.0.so\n"
         "race:libgio-2.0.so\n"
         "race:libgtk-4.so\n"
         "race:libpango-1.0.so\n"
         "race:libfontconfig.so\n"
         "race:libwebkitgtk-6.0.so\n"
         "race:libjavascriptcoregtk-6.0.so\n"
         "race:libgnutls.so\n"
         "race:libproxy.so\n"
         "race:libcrypto.so\n";
#else
  return "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgio-2.0.so\n"
         "called_from_lib:libcpp-httplib.so\n"
         "race:libcpp-httplib.so\n"
         "race:libcrypto.so\n"
         "mutex:testMonitorType\n";
#endif
}

// Font configuration and the script engine keep process-lifetime caches that
// the leak checker would report at exit.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libjavascriptcoregtk-6.0.so\n";
}
