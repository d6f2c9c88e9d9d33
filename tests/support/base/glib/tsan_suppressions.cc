// Linked to each test that uses GLib, so that the test has this however it is started.
//
// GLib is not instrumented, and its locks are futexes of its own, in which ThreadSanitizer sees no
// order. So it reports an idle worker of an earlier pool, which frees a pool and its queue inside
// GLib, against the thread that created that pool.
//
// This ignores what GLib itself calls (malloc, free, memcpy) and nothing that GLib calls back. A
// suppression of races by the library's name would cover every stack of a worker, our code
// included.
extern "C" char const* __tsan_default_suppressions();  // NOLINT: its name

char const* __tsan_default_suppressions() { return "called_from_lib:libglib-2.0.so"; }
