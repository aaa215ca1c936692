// Snapshots: asking for one or a burst, and writing the pending one from the next picture.
#include "camctl/IpCamera.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "snapshot_writer.h"

#include "camera/camera_internal.h"
#include "runtime/os.h"

TRC_USE_UNIT(g_trcCameraUnit);

using namespace camera;

// ---------------------------------------------------------------------------
// Snapshots

int CIpCamera::SaveImage(int type, int count) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    GetImagePath(m_szImagePath, type);
    m_bImagePending = 1;
    if (count > m_nImageRemain) m_nImageType = type;
    m_nLastImageTime = NowSec();
    m_nImageRemain = std::max(m_nImageRemain, count) - 1;
    return 0;
}

void CIpCamera::WritePendingSnapshot(unsigned char* buf, int width, int height, bool planar) {
    char path[kTextSize];
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        if (!m_bImagePending) return;
        memcpy(path, m_szImagePath, sizeof path);
        m_bImagePending = 0;
        m_szImagePath[0] = '\0';
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  SaveBmp  Path:%s start ... ", GetId(), Name().c_str(),
            path);
    if (path[0] != '\0' && width > 0 && height > 0) {
        if (planar) {
            SaveYuvJpegFile(path, buf, width, height);
        } else {
            // The JPEG writer turns the pixels it is given from blue-green-red
            // into red-green-blue in place: it gets a copy, so the host sees
            // the picture as it came.
            const size_t bytes = static_cast<size_t>(width) * height * kPackedBytesPerPixel;
            std::vector<unsigned char> copy(buf, buf + bytes);
            SaveJpegFile(path, copy.data(), width, height, static_cast<int>(kPackedBytesPerPixel));
        }
    }
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    m_nLastImageTime = NowSec();
}
