/// What the daemon uses of libtcapi, the client library of the device's configuration store.

#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Stores a text as an attribute of a node. The daemon looks at no result.
int tcapiSet(const char *node, const char *attribute, const char *value);

/// Stores a number as an attribute of a node. The daemon looks at no result.
int tcapiSetUint32(const char *node, const char *attribute, unsigned int value);

#ifdef __cplusplus
}
#endif
