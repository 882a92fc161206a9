#ifdef REFLECTORB_SANITIZED

// A cancelled thread unwinds without the address sanitizer's knowledge: the marks that it made around the variables of
// the frames in between stay on the stack, and what uses that memory next seems to be in error. Variables that live
// elsewhere leave no such marks.
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options() {
    return "detect_stack_use_after_return=1";
}

// What the C library keeps for the end of a thread is lost in a forked child together with the thread.
extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_suppressions() {
    return "leak:__cxa_thread_atexit_impl\n";
}

#endif
