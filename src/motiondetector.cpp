#include "camctl/MotionDetector.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#define CAMCTL_MOTION_SSE2 1
#endif

#include "runtime/trc_log.h"

TRC_DEFINE_UNIT();

namespace {

// Start phases of all detectors in the process: 1, 2, ... 15, 0, 1, ...
// (2^32 is a multiple of 16, so the sequence survives the wrap-around).
std::atomic<uint32_t> s_phaseCounter{0};

int64_t SystemSeconds(void*) {
    return static_cast<int64_t>(time(nullptr));
}

struct LevelThresholds {
    int areaPercent;
    int pixelDiff;
};
constexpr LevelThresholds kLevels[3] = {{75, 50}, {50, 35}, {25, 20}};

// The sampling of one cell: `rows` consecutive picture rows from the cell's
// top, `samples` pixels per row taken every second pixel. After a row the
// walk continues (width - cell width) pixels past where the row's sampling
// ended, so with an odd cell width each row starts one pixel further right.
struct CellWalk {
    int rows;
    int samples;
    size_t rowStep;  // bytes from one sampled row's start to the next
};

CellWalk MakeWalk(int width, int cellWidth, int cellHeight) {
    CellWalk walk;
    walk.rows = (cellHeight + 1) / 2;
    walk.samples = (cellWidth + 1) / 2;
    walk.rowStep = (static_cast<size_t>(width) + static_cast<size_t>(cellWidth & 1)) * 3;
    return walk;
}

inline bool SampleChanged(const unsigned char* a, const unsigned char* b, int diff) {
    return std::abs(a[0] - b[0]) >= diff || std::abs(a[1] - b[1]) >= diff ||
           std::abs(a[2] - b[2]) >= diff;
}

// Changed samples in one sampled row, counted from sample `first`.
inline int CountRowScalar(const unsigned char* cur, const unsigned char* ref, int first, int samples,
                          int diff) {
    int changed = 0;
    for (int i = first; i < samples; ++i) {
        changed += SampleChanged(cur + i * 6, ref + i * 6, diff);
    }
    return changed;
}

#if CAMCTL_MOTION_SSE2
// Bit i set for every byte i of the 16 whose difference reaches the
// threshold (given as threshold - 1, 0..254).
inline uint32_t ChangedBytes16(const unsigned char* cur, const unsigned char* ref, __m128i below) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(cur));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ref));
    const __m128i absdiff = _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
    const __m128i over = _mm_subs_epu8(absdiff, below);
    const __m128i same = _mm_cmpeq_epi8(over, _mm_setzero_si128());
    return static_cast<uint32_t>(~_mm_movemask_epi8(same)) & 0xFFFF;
}

// Eight samples (16 pixels, 48 bytes): how many changed.
inline int CountChunk(const unsigned char* cur, const unsigned char* ref, __m128i below) {
    uint64_t bytes = ChangedBytes16(cur, ref, below);
    bytes |= static_cast<uint64_t>(ChangedBytes16(cur + 16, ref + 16, below)) << 16;
    bytes |= static_cast<uint64_t>(ChangedBytes16(cur + 32, ref + 32, below)) << 32;
    // A sample is the pixel at bytes 6k..6k+2: fold its three bits onto bit 6k.
    const uint64_t pixels = (bytes | (bytes >> 1) | (bytes >> 2)) & 0x041041041041ULL;
    // Sum the eight isolated bits into bits 42..47.
    return static_cast<int>(((pixels * 0x041041041041ULL) >> 42) & 0x3F);
}
#endif

inline int CountRow(const unsigned char* cur, const unsigned char* ref, int samples, int diff) {
    int first = 0;
#if CAMCTL_MOTION_SSE2
    if (diff >= 1 && diff <= 255) {
        const __m128i below = _mm_set1_epi8(static_cast<char>(diff - 1));
        int changed = 0;
        // A chunk reads 48 bytes, 3 past its last sample: only take chunks
        // that have at least one more sample of this row after them.
        for (; first + 8 < samples; first += 8) {
            changed += CountChunk(cur + first * 6, ref + first * 6, below);
        }
        return changed + CountRowScalar(cur, ref, first, samples, diff);
    }
#endif
    return CountRowScalar(cur, ref, first, samples, diff);
}

}  // namespace

CMotionDetector::CMotionDetector()
    : m_pOwner(nullptr),
      m_bInit(0),
      m_bEnable(0),
      m_nLevel(1),
      m_nDetectSpaceTime(2),
      m_nNotifySpaceTime(5),
      m_tLastDetect(0),
      m_tLastNotify(0),
      m_nFrameCount(0),
      m_nAreaPercent(50),
      m_nPixelDiff(35),
      m_nPreSize(0),
      m_nPreWidth(0),
      m_nPreHeight(0),
      m_pfnClock(SystemSeconds),
      m_pClockContext(nullptr),
      m_szOwnerName() {
    for (auto& cell : m_DetectMap) cell.store(0x01, std::memory_order_relaxed);
}

CMotionDetector::~CMotionDetector() {
    Free();
}

int CMotionDetector::Init(void* owner, int width, int height) {
    Free();
    if (width <= 0 || height <= 0) return -1;

    const uint32_t phase = (s_phaseCounter.fetch_add(1, std::memory_order_relaxed) + 1) % 16;
    m_nFrameCount = static_cast<int32_t>(phase);
    m_pOwner = owner;

    std::string name;
    {
        std::lock_guard<std::mutex> lock(m_NameLock);
        name = m_szOwnerName;
    }
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 3;
    m_pPreData.reset(new (std::nothrow) unsigned char[bytes]);
    if (m_pPreData) {
        m_nPreSize = bytes;
        m_nPreWidth = width;
        m_nPreHeight = height;
        std::memset(m_pPreData.get(), 0, bytes);
    } else {
        m_nPreSize = 0;
        trc_log(__FILE__, __LINE__, "", "=======Camera(%s) ALgMotionDetect malloc m_pPreData fail...======",
                name.c_str());
    }
    trc_log(__FILE__, __LINE__, "", "=======Camera(%s) ALgMotionDetect Init(%d,%d)...======", name.c_str(),
            width, height);
    m_bInit = 1;
    return 0;
}

int CMotionDetector::Free() {
    if (!m_bInit) return -1;
    std::string name;
    {
        std::lock_guard<std::mutex> lock(m_NameLock);
        name = m_szOwnerName;
    }
    trc_log(__FILE__, __LINE__, "", "=======Camera(%s) ALgMotionDetect Free...======", name.c_str());
    m_bInit = 0;
    m_pOwner = nullptr;
    m_pPreData.reset();
    m_nPreSize = 0;
    m_nPreWidth = m_nPreHeight = 0;
    return 0;
}

int CMotionDetector::SetDetectEnable(int enable) {
    m_bEnable.store(enable, std::memory_order_relaxed);
    return 0;
}

int CMotionDetector::SetDetectLevel(int level) {
    m_nLevel.store(level, std::memory_order_relaxed);
    if (level >= 0 && level <= 2) {
        m_nAreaPercent.store(kLevels[level].areaPercent, std::memory_order_relaxed);
        m_nPixelDiff.store(kLevels[level].pixelDiff, std::memory_order_relaxed);
    }
    return 0;
}

int CMotionDetector::SetDetectMap(unsigned char* map) {
    if (!map) return 0;
    for (int i = 0; i < kMapSize; ++i) m_DetectMap[i].store(map[i], std::memory_order_relaxed);
    return 0;
}

int CMotionDetector::SetDetectSpaceTime(int seconds) {
    m_nDetectSpaceTime.store(seconds, std::memory_order_relaxed);
    return 0;
}

int CMotionDetector::SetNotifySpaceTime(int seconds) {
    m_nNotifySpaceTime.store(seconds, std::memory_order_relaxed);
    return 0;
}

int CMotionDetector::SetOwnerName(const char* name) {
    std::lock_guard<std::mutex> lock(m_NameLock);
    snprintf(m_szOwnerName, sizeof m_szOwnerName, "%s", name ? name : "");
    return 0;
}

void CMotionDetector::SetClock(SecondsSource source, void* context) {
    m_pfnClock = source ? source : SystemSeconds;
    m_pClockContext = source ? context : nullptr;
}

int64_t CMotionDetector::Now() const {
    return m_pfnClock(m_pClockContext);
}

bool CMotionDetector::HasReferenceFor(int width, int height) const {
    return m_pPreData && width > 0 && height > 0 && width <= m_nPreWidth && height <= m_nPreHeight;
}

void CMotionDetector::StoreReference(const unsigned char* picture, int width, int height) {
    if (picture && HasReferenceFor(width, height))
        std::memcpy(m_pPreData.get(), picture, static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
}

int CMotionDetector::MotionDetectRun(unsigned char* picture, int width, int height) {
    if (!m_bInit || !m_bEnable.load(std::memory_order_relaxed)) return 0;

    const int32_t before = m_nFrameCount;
    // Wraps instead of overflowing after 2^31 pictures.
    m_nFrameCount = static_cast<int32_t>(static_cast<uint32_t>(before) + 1);
    if (before < kWarmUpPictures) return 0;

    const int32_t now = static_cast<int32_t>(Now());
    if (m_nFrameCount == kWarmUpPictures + 1) StoreReference(picture, width, height);

    const bool testPicture = m_nFrameCount % 4 == 0;
    const int64_t sinceDetect = static_cast<int64_t>(now) - m_tLastDetect;
    if (sinceDetect >= m_nDetectSpaceTime.load(std::memory_order_relaxed)) {
        if (testPicture && ALgMotionDetect(picture, width, height)) {
            const int32_t lastNotify = m_tLastNotify;
            m_tLastDetect = now;
            trc_log(__FILE__, __LINE__, "", "ALgMotionDetect Succ FrameCount:%d", m_nFrameCount);
            if (static_cast<int64_t>(now) - lastNotify < m_nNotifySpaceTime.load(std::memory_order_relaxed)) {
                return 2;
            }
            m_tLastNotify = now;
            return 1;
        }
        return 0;
    }
    if (testPicture) StoreReference(picture, width, height);
    return 0;
}

bool CMotionDetector::ALgMotionDetect(unsigned char* picture, int width, int height) {
    if (!m_bInit || !picture || !HasReferenceFor(width, height)) return false;
    const int cellHeight = height / kGridRows;
    const int cellWidth = width / kGridColumns;
    for (int row = 0; row < kGridRows; ++row) {
        for (int column = 0; column < kGridColumns; ++column) {
            if (m_DetectMap[column * kGridRows + row].load(std::memory_order_relaxed) == '0') continue;
            const int64_t offset =
                3 * (static_cast<int64_t>(row) * cellHeight * width + static_cast<int64_t>(column) * cellWidth);
            if (offset > INT32_MAX) break;  // beyond what a cell offset can express
            if (AlgMotionWinDetect(picture, width, height, static_cast<int>(offset))) {
                StoreReference(picture, width, height);
                trc_log(__FILE__, __LINE__, "", "ALgMotionDetect Succ x:%d  y:%d", column, row);
                return true;
            }
        }
    }
    StoreReference(picture, width, height);
    return false;
}

bool CMotionDetector::AlgMotionWinDetect(unsigned char* picture, int width, int height, int offset) {
    if (!m_bInit || !picture || !HasReferenceFor(width, height) || offset < 0) return false;
    const int cellHeight = height / kGridRows;
    const int cellWidth = width / kGridColumns;
    const CellWalk walk = MakeWalk(width, cellWidth, cellHeight);
    const int diff = m_nPixelDiff.load(std::memory_order_relaxed);
    const int required = m_nAreaPercent.load(std::memory_order_relaxed) * cellWidth * cellHeight / 100;
    const int needed = width > 640 ? required : std::max(required, 50);
    if (needed <= 0) return true;  // 4 x changed >= needed holds with no change at all
    if (walk.rows == 0 || walk.samples == 0) return false;

    // The walk must stay inside the picture (and so inside the reference,
    // which is at least as large): the last byte it touches.
    const size_t last = static_cast<size_t>(offset) + (walk.rows - 1) * walk.rowStep +
                        static_cast<size_t>(walk.samples - 1) * 6 + 2;
    if (last >= static_cast<size_t>(width) * static_cast<size_t>(height) * 3) return false;

    const unsigned char* cur = picture + offset;
    const unsigned char* ref = m_pPreData.get() + offset;
    int changed = 0;
    for (int r = 0; r < walk.rows; ++r) {
        changed += CountRow(cur, ref, walk.samples, diff);
        if (4 * changed >= needed) return true;
        cur += walk.rowStep;
        ref += walk.rowStep;
    }
    return false;
}
