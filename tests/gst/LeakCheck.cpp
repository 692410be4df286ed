// For builds with AddressSanitizer: GLib keeps memory from the moment that it is loaded. To tell that from other leaks
// takes whole stacks, which GLib's code without frame pointers hides from the quick way.

extern "C" {

const char* __asan_default_options();
const char* __lsan_default_suppressions();

const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}

const char* __lsan_default_suppressions() {
  return "leak:ld-linux\n";
}

}  // extern "C"
