// Camctl: client library for IP cameras. Include this one header.
#pragma once

#include "camctl/FrameListener.h"
