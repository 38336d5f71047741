// LeakSanitizer's suppressions for this test program. Qt's font database
// (the panel's text, on the offscreen platform) keeps fontconfig's patterns
// for the life of the process, and fontconfig frees them only in FcFini,
// which nothing calls; they are reported at exit without being a leak of ours.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }
// Nothing to say about them on success.
extern "C" const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
