// A library that tests load: a function, a datum, and word of its being unloaded.
extern "C" {
__attribute__((visibility("default"))) int PluginDifference(int a, int b);
__attribute__((visibility("default"))) void PluginTellUnloading(int *flag);
extern __attribute__((visibility("default"))) int PluginNumber;
}

namespace {
int *l_unloading = nullptr;

__attribute__((destructor)) void OnUnload() {
  if (l_unloading != nullptr) *l_unloading = 1;
}
}  // namespace

int PluginNumber = 4711;

int PluginDifference(int a, int b) { return a - b; }

// The flag becomes 1 when the library goes.
void PluginTellUnloading(int *flag) { l_unloading = flag; }
