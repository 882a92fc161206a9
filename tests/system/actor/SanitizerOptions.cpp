#ifdef REFLECTORB_SANITIZED

// A cancelled thread unwinds without the address sanitizer's knowledge: the marks that it made around the variables of
// the frames in between stay on the stack, and what uses that memory next seems to be in error. Variables that live
// elsewhere leave no such marks.
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options() {
    return "detect_stack_use_after_return=1";
}

// An actor may be told to end while threads of it call others. Nobody joins those.
extern "C" __attribute__((visibility("default"), used)) const char *__tsan_default_options() {
    return "report_thread_leaks=0";
}

#endif
