// ThreadSanitizer suppressions, linked into every test executable (there can
// be one definition per executable).
//
// GLib, GTK and WebKit synchronise their threads with futexes of their own,
// which the sanitizer cannot see, so memory that they hand between threads
// looks racy inside their own (uninstrumented) calls. Only reports from calls
// made by those libraries are dropped; our code, including callbacks they
// run, stays checked. The packaged loopback HTTP server used by adapter tests
// is uninstrumented in the same way; its reports concern its own threads.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgio-2.0.so\n"
         "called_from_lib:libgtk-4.so\n"
         "called_from_lib:libwebkitgtk-6.0.so\n"
         "called_from_lib:libjavascriptcoregtk-6.0.so\n"
         "called_from_lib:libcpp-httplib.so\n"
         "race:libcpp-httplib.so\n";
}
