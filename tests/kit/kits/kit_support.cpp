// A library that the main test kit needs and finds in its own folder.
extern "C" __attribute__((visibility("default"))) const char* TestKitEchoKey() { return "echo"; }
