// A small shared library that the signature tests sign and load.
extern "C" __attribute__((visibility("default"))) int tarn_security_test_answer() { return 42; }
