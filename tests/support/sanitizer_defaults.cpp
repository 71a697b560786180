// Compiled into every program that links the test support, when it is built with ThreadSanitizer.

/// The client library formats addresses for its log lines into one buffer for all handles (ZOOKEEPER-4810). It is the
/// only caller of this function that we have.
extern "C" const char* __tsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)

extern "C" const char* __tsan_default_suppressions()  // NOLINT(bugprone-reserved-identifier)
{
    return "race:__sprintf_chk\n";
}
