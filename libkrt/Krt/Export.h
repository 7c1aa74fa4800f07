// Marks what libKrt exports; everything else in the shared object is hidden.
#pragma once

/// Stands in front of every name that libKrt exports.
#define KRT_API __attribute__((visibility("default")))
