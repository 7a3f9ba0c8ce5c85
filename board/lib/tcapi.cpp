// libtcapi of the simulated board: a node is a folder, an attribute a file that holds its value.

#include "tcapi.h"

#include "hardware.h"

#include <sys/stat.h>

namespace {

using kelo::device::storeFolder;

/// Replaces an attribute in one step, so that a reader finds the old value or the new one.
int store(const char *node, const char *attribute, const char *value)
{
    char path[256];
    snprintf(path, sizeof path, "%s%s", storeFolder, node);
    mkdir(path, 0755);
    char temporary[256];
    snprintf(path, sizeof path, "%s%s/%s", storeFolder, node, attribute);
    snprintf(temporary, sizeof temporary, "%s%s/.%s", storeFolder, node, attribute);
    FILE *const file = fopen(temporary, "w");
    if (!file)
        return -1;
    fprintf(file, "%s\n", value);
    return fclose(file) == 0 && rename(temporary, path) == 0 ? 0 : -1;
}

} // namespace

int tcapiSet(const char *node, const char *attribute, const char *value)
{
    const int result = store(node, attribute, value);
    noteCall("tcapiSet %s %s \"%s\"%s\n", node, attribute, value, result == 0 ? "" : " refused");
    return result;
}

int tcapiSetUint32(const char *node, const char *attribute, unsigned int value)
{
    char text[16];
    snprintf(text, sizeof text, "%u", value);
    const int result = store(node, attribute, text);
    noteCall("tcapiSetUint32 %s %s %u%s\n", node, attribute, value, result == 0 ? "" : " refused");
    return result;
}
