// Why the last open of a stream failed, as a reason a host can act on.
//
// CVideoSession::GetOpenFailure and CIpCamera::GetOpenFailure answer one of
// these; their text gives the detail (what was being done and FFmpeg's own
// error text, with any password shown as "***").
#pragma once

#include "camctl/Export.h"

/// Why the last open of a stream failed.
enum CamctlOpenFailure {
    CAMCTL_OPEN_OK = 0,           ///< the last open succeeded, or none was tried
    CAMCTL_OPEN_UNREACHABLE = 1,  ///< nothing answered: connection refused, no route, unknown host, connect timed out
    CAMCTL_OPEN_UNAUTHORIZED = 2, ///< the server refused the credentials, or asked for some and none were given (401/403)
    CAMCTL_OPEN_NOT_FOUND = 3,    ///< the server answered that the stream does not exist (404), or the file is missing
    CAMCTL_OPEN_NO_VIDEO = 4,     ///< the server answered, but no playable video came (no video stream,
                                  ///< unknown codec, silence)
    CAMCTL_OPEN_BAD_URL = 5,      ///< not a source the library can open (unknown scheme, malformed URL)
    CAMCTL_OPEN_OTHER = 6,        ///< anything else
};

/// Short English name of a reason: "ok", "unreachable", "credentials refused",
/// "not found", "no video", "bad url", "failed" (also for unknown values).
CAMCTL_API const char* CamctlOpenFailureName(int reason);
