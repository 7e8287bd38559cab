// Built into hostbinder's test programs only under ThreadSanitizer.
//
// Debian's libutils is not instrumented, so ThreadSanitizer cannot see the
// atomic counting inside RefBase::decStrong: when the last strong reference
// of an object goes on one thread, the delete that follows looks like a race
// with every earlier use of the object on other threads. Only reports with
// decStrong on one of their stacks are silenced; any other race still fails.
extern "C" const char* __tsan_default_suppressions() { return "race:android::RefBase::decStrong\n"; }
