// Sanitizer defaults for the fuzz targets, so that a reproducer run by hand
// reports as scripts/fuzz does: undefined behaviour with the stack that led to it.
extern "C" const char* __ubsan_default_options() {
  return "print_stacktrace=1";
}
