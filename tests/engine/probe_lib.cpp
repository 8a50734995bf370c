// A shared object for the library-load tests: loading it is the event.
extern "C" int kx_engine_probe() { return 42; }
