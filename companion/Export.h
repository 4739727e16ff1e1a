// What the shared library exports: the classes and functions of the public headers. Everything
// else is compiled with hidden visibility and stays inside.
#pragma once

#define FILELIB_API __attribute__((visibility("default")))
