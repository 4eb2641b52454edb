// OpenUSD's own leaks, suppressed inside each test program of a sanitized OpenUSD build (listing
// the tests at build time runs them without the test environment): per-thread registries and
// plugin tables kept for the life of the process, and the decoding context that its OpenEXR
// reader drops when a damaged file fails. The sanitizer runtime reads this hook.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libusd_tf.so\nleak:libusd_trace.so\nleak:libusd_plug.so\nleak:nanoexr_read_exr\n";
}
