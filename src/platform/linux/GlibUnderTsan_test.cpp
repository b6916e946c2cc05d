// GLib synchronises its threads with futexes of its own, which
// ThreadSanitizer cannot see; reports whose stacks run through GLib are
// therefore noise. Our own code stays fully checked.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgio-2.0.so\n";
}
