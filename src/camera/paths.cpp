// Storage paths: the save folder and the names of recordings and snapshots below it.
#include "camctl/IpCamera.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>

#include "camera/camera_internal.h"
#include "snapshot_writer.h"
#include "runtime/os.h"

TRC_USE_UNIT(g_trcCameraUnit);

using namespace camera;

namespace {

constexpr int kTmYearBase = 1900;  // struct tm counts years from here

struct tm LocalNow() {
    const time_t t = time(nullptr);
    struct tm local {};
    localtime_r(&t, &local);
    return local;
}

// A camera name as it may appear in a path component: '/', control
// characters and runs of two or more dots become '_'.
std::string SafeComponent(const char* name) {
    std::string out(name ? name : "");
    for (char& c : out) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '/' || u < 0x20 || u == 0x7f) c = '_';
    }
    for (size_t i = 0; i < out.size();) {
        if (out[i] != '.') {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < out.size() && out[j] == '.') ++j;
        if (j - i >= 2) std::fill(out.begin() + i, out.begin() + j, '_');
        i = j;
    }
    return out;
}

// One folder level; failures (the folder exists, a parent is missing) are
// the caller's to ignore.
bool MakeDir(const char* path) { return mkdir(path, 0755) == 0; }

// <parent>/YYYY-MM-DD for the day t falls on, made when missing.
void MakeDayFolder(char (&day)[kTextSize], const char* parent, const struct tm& t) {
    BoundedPrint(day, sizeof day, "%s/%04d-%02d-%02d", parent, t.tm_year + kTmYearBase, t.tm_mon + 1,
                 t.tm_mday);
    MakeDir(day);
}

}  // namespace

// ---------------------------------------------------------------------------
// Storage paths

int CIpCamera::SetSaveDir(const char* root, const char* sub) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const std::string name = SafeComponent(Name().c_str());
    if (!root) root = ".";
    if (sub) {
        BoundedPrint(m_szSaveDir, sizeof m_szSaveDir, "%s/%s/%s+%d/%s/", root, "VMS", name.c_str(),
                 GetId(), sub);
    } else {
        BoundedPrint(m_szSaveDir, sizeof m_szSaveDir, "%s/%s/%s+%d/", root, "VMS", name.c_str(),
                 GetId());
    }
    if (!MakeDirectories(m_szSaveDir)) {
        trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) SetSaveDir:%s break ... ", GetId(), Name().c_str(),
                m_szSaveDir);
        return -1;
    }
    const size_t len = strlen(m_szSaveDir);
    if (len > 1 && m_szSaveDir[len - 1] == '/') m_szSaveDir[len - 1] = '\0';
    return 0;
}

int CIpCamera::GetAviPath(char* out, int reason) {
    if (!out) return -1;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const struct tm t = LocalNow();
    const std::string name = SafeComponent(Name().c_str());
    char record[kTextSize];
    char day[kTextSize];
    MakeDir(m_szSaveDir);
    BoundedPrint(record, sizeof record, "%s/MS_Record", m_szSaveDir);
    MakeDir(record);
    MakeDayFolder(day, record, t);
    BoundedPrint(out, kTextSize, "%s/%s+%d_%04d%02d%02d-%02d%02d%02d_%d.avi", day, name.c_str(), GetId(),
             t.tm_year + kTmYearBase, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, reason);
    return 0;
}

int CIpCamera::GetImagePath(char* out, int type) {
    if (!out) return -1;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const struct tm t = LocalNow();
    const std::string name = SafeComponent(Name().c_str());
    char folder[kTextSize];
    char day[kTextSize];
    MakeDir(m_szSaveDir);
    if (type == kPictureManual) {
        BoundedPrint(folder, sizeof folder, "%s/IMAGE-MANUAL", m_szSaveDir);
        if (!MakeDir(folder)) trc_log(__FILE__, __LINE__, "", "Create path:%s Failed......", folder);
    } else {
        BoundedPrint(folder, sizeof folder, "%s/IMAGE", m_szSaveDir);
        MakeDir(folder);
    }
    MakeDayFolder(day, folder, t);
    const int32_t serial = s_nImageSerial.fetch_add(1);
    BoundedPrint(out, kTextSize, "%s/%s_%04d%02d%02d-%02d%02d%02d_%d_%d.jpg", day, name.c_str(),
             t.tm_year + kTmYearBase, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, type, serial);
    return 0;
}

void CIpCamera::GetRecordingPath(char* out, int size) {
    if (!out || size <= 0) return;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    BoundedPrint(out, static_cast<size_t>(size), "%s", m_szAviPath);
}
