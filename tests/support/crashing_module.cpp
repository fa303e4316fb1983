// Fails while the loader runs its constructors.
namespace {
[[gnu::constructor]] void fail() {
  int* volatile badAddress = reinterpret_cast<int*>(16);  // NOLINT(performance-no-int-to-ptr)
  *static_cast<volatile int*>(badAddress) = 1;
}
}  // namespace
