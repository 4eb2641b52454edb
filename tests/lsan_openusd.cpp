// Leaks that are OpenUSD's own, suppressed inside every test program of a sanitized OpenUSD build
// (listing the tests at build time runs them without the test environment): its libraries keep
// per-thread registry state and plugin tables for the life of the process, and its OpenEXR reader
// drops its decoding context when a damaged file fails to decode.

// Both are read by the sanitizer runtime, so they must be visible outside the program.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libusd_tf.so\n"
           "leak:libusd_trace.so\n"
           "leak:libusd_plug.so\n"
           "leak:nanoexr_read_exr\n";
}

// Death tests match a child's whole stderr, which must not end with suppression statistics.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options() {
    return "print_suppressions=0";
}
