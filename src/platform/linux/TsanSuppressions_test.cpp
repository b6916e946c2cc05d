// ThreadSanitizer suppressions for the whole adapter test executable (one
// definition per executable: add further libraries here).
//
// GLib synchronises its threads with futexes of its own, which the sanitizer
// cannot see, so memory that GLib hands between threads looks racy inside
// GLib's own (uninstrumented) calls. Only reports from calls made by GLib
// itself are dropped; our code, including callbacks GLib runs, stays checked.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgio-2.0.so\n";
}
