// Compiled into every program that links the test support, when it is built with a sanitizer that these are for. Each
// line is a defect of the client library that no use of it avoids, and matches nothing that is ours: none of these
// functions calls back into a program.
// NOLINTBEGIN(bugprone-reserved-identifier)

/// The client library formats addresses for its log lines into one buffer for all handles (ZOOKEEPER-4810). It is the
/// only caller of this function that we have.
extern "C" const char* __tsan_default_suppressions();

extern "C" const char* __tsan_default_suppressions()
{
    return "race:__sprintf_chk\n";
}

/// Tests fork with threads running, and let the child make threads of its own.
extern "C" const char* __tsan_default_options();

extern "C" const char* __tsan_default_options()
{
    return "die_after_fork=0";
}

/// What arrives, or is answered with an error, in the moment in which a handle is closed is queued for the library's
/// thread of callbacks when that has left its loop, and nobody frees it any more: watch events that the thread of
/// input and output takes in, and entries of requests, made when those were submitted.
extern "C" const char* __lsan_default_suppressions();

extern "C" const char* __lsan_default_suppressions()
{
    return "leak:^zookeeper_process$\n"
           "leak:^zoo_a*\n";
}

/// Programs whose standard error is read are to say nothing of it.
extern "C" const char* __lsan_default_options();

extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}
// NOLINTEND(bugprone-reserved-identifier)
