// An allocation that is too large is answered with null, as without a sanitizer: the library's
// way out of a module's absurd numbers is to be tested, not the sanitizer's.
extern "C" {

__attribute__((visibility("default"), used)) const char* __asan_default_options();
__attribute__((visibility("default"), used)) const char* __tsan_default_options();

const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}
}
