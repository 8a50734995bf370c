// Visibility of the host contract.
//
// The plug-in is built with -fvisibility=hidden, but every class and function
// declared under include/host/ is defined by the host runtime (libkxhost.so).
// Marking the declarations with default visibility lets the plug-in reference
// them across the library boundary and keeps one type_info per host type, so
// an exception of a host type thrown on one side is caught on the other.
#pragma once

#define KX_HOST_API __attribute__((visibility("default")))
