// The companion library. Callers of the runtime load it beside the runtime so that its symbols are
// there for the runtime to use; this runtime needs none, so there is only something to recognise it
// by.

extern "C" __attribute__((visibility("default"))) int RT_CompatVersion() {
    return 6;
}
