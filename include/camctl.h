// Camctl: client library for IP cameras. Include this one header.
#pragma once

#include "camctl/FrameListener.h"
#include "camctl/OpenFailure.h"
#include "camctl/VideoSession.h"
#include "camctl/UrlVideoSession.h"
#include "camctl/FileVideoSession.h"
#include "camctl/RecordPlayer.h"
#include "camctl/CDC.h"
#include "camctl/VideoDisplayer.h"
#include "camctl/MotionDetector.h"
#include "camctl/TimeManager.h"
#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
