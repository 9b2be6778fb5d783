// A plug-in reduced to what a host asks of it first: entry, exit, its name and its version. PLUGIN_NAME and
// PLUGIN_VERSION come from the command line of the compiler.

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED bool bundleEntry(void*) { return true; }

EXPORTED bool bundleExit() { return true; }

EXPORTED const char* pluginName() { return PLUGIN_NAME; }

EXPORTED const char* pluginVersion() { return PLUGIN_VERSION; }
