/// \file
/// CAMCTL_API marks what libcamctl.so exports; everything else in the
/// library is hidden.
#pragma once

#if defined(__GNUC__)
#define CAMCTL_API __attribute__((visibility("default")))
#else
#define CAMCTL_API
#endif
