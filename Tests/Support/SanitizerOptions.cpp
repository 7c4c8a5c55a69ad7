// What the sanitizers ask a test program for. Without sanitizers nobody asks.

// Up to 3.8 Python puts a signal stack of its own in the place of the address sanitizer's, which
// the sanitizer then tries to give back to the system as its own. Weak: a test program may have
// options of its own.
extern "C" __attribute__((visibility("default"), weak)) const char* __asan_default_options() {
    return "use_sigaltstack=0";
}

// Asked by the leak sanitizer. It takes some thread-local blocks of opened libraries for something
// else (when one lies 16 bytes into a page) and crashes while it reads them at the program's end.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options() {
    return "use_tls=0";
}

// Asked too. The loader keeps its lists of opened libraries and each thread's last error on
// memory that is not searched. CPython keeps much of its memory to the end of the process and
// forgets some of it at every finalisation; only what Python's own code has allocated is left out.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:add_to_global_resize\nleak:_dlerror_run\nleak:_dl_exception_create\n"
           "leak:_dl_map_object_deps\n"
           "leak:libpython3\nleak:/lib-dynload/\n";
}
