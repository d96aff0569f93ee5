// The "type:value" argument texts of the dbus-send tool, appended to a D-Bus message:
// basic types ("string", "int16", "uint16", "int32", "uint32", "int64", "uint64",
// "double", "byte", "boolean", "objpath") and the containers "variant:type:value",
// "array:type:v1,v2,..." and "dict:keytype:valuetype:k1,v1,k2,v2,...".
//
// The texts come from scripts: every malformed one is refused with an ERROR line before
// anything reaches libdbus, whose own argument checks abort the process.
#pragma once

#include <string>
#include <vector>

#include <dbus/dbus.h>

namespace korvo {

// The D-Bus type code of a basic type name; DBUS_TYPE_INVALID for anything else.
int type_from_name(const char* name);

// Appends every argument to `msg` in order. False at the first malformed one (ERROR
// line); the message then holds a prefix of the arguments and must not be sent.
bool addArgsFromList(DBusMessage* msg, const std::vector<std::string>& args);

}  // namespace korvo
