// A shared object that holds no plug-in.

extern "C" int test_plugin_answer() {
  return 42;
}
