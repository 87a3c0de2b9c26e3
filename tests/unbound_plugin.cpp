// A library that calls a function which nobody has: it can be loaded only where its calls are bound one by one, later.
extern "C" {
void NobodyHasThisFunction();
__attribute__((visibility("default"))) void UnboundPluginCall();
}

void UnboundPluginCall() { NobodyHasThisFunction(); }
