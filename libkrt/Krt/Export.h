#pragma once

/// @file
/// The export macro of libKrt.

/// Marks a name that libKrt exports; other symbols of the shared library are hidden.
#define KRT_API __attribute__((visibility("default")))
