// A library for the module tests to load.
extern "C" {
__attribute__((visibility("default"))) int fixture_twice(int value) { return 2 * value; }
__attribute__((visibility("default"))) int fixture_loads = 0;
}
