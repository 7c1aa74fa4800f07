// Marks what libKrt exports; everything else in the shared object is hidden.
#pragma once

#define KRT_API __attribute__((visibility("default")))
