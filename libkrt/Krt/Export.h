#pragma once

/// @file
/// Which names the libraries export.

/// Marks a name that libKrt exports; other symbols of the shared library are hidden.
#define KRT_API __attribute__((visibility("default")))
/// Marks a part of an exported class that only the library's own sources use.
#define KRT_HIDDEN __attribute__((visibility("hidden")))
