#include "jpeg_encoder.h"

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#define CAMCTL_JPEG_SSE2 1
#endif

namespace {

// ---------------------------------------------------------------------------
// Tables of ITU-T T.81

// Natural (row-major) index of each zig-zag position.
constexpr unsigned char kNaturalOrder[64] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
    41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
    30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

// Annex K.1 and K.2 quantisation tables, natural order.
constexpr unsigned char kLumaQuantBase[64] = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
constexpr unsigned char kChromaQuantBase[64] = {
    17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
    24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

// Annex K.3 Huffman tables: code counts per length 1..16, then the symbols.
constexpr unsigned char kLumaDcBits[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
constexpr unsigned char kLumaDcValues[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr unsigned char kChromaDcBits[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
constexpr unsigned char kChromaDcValues[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr unsigned char kLumaAcBits[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
constexpr unsigned char kLumaAcValues[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61,
    0x07, 0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52,
    0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25,
    0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45,
    0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64,
    0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99,
    0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6,
    0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3,
    0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8,
    0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};
constexpr unsigned char kChromaAcBits[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
constexpr unsigned char kChromaAcValues[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61,
    0x71, 0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33,
    0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18,
    0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44,
    0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63,
    0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97,
    0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4,
    0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca,
    0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7,
    0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

// AAN scale factors: cos(k * pi / 16) * sqrt(2) for k > 0, 1 for k = 0.
constexpr double kAanScale[8] = {1.0,         1.387039845, 1.306562965, 1.175875602,
                                 1.0,         0.785694958, 0.541196100, 0.275899379};

// Fixed part of the file before the entropy-coded data, and the marker after it.
constexpr size_t kHeaderBytes = 2 + 18 + 2 * 69 + 19 + (33 + 183) * 2 + 14;
constexpr size_t kTrailerBytes = 2;

// Largest magnitude categories baseline coding allows.
constexpr int kMaxAc = 1023;
constexpr int kMinDc = -1024;
constexpr int kMaxDc = 1023;

// A Huffman table ready for encoding: code and length per symbol.
struct HuffCodes {
    uint16_t code[256];
    uint8_t size[256];
};

// Canonical code assignment of T.81 Annex C.
void BuildHuffCodes(const unsigned char bits[16], const unsigned char* values, HuffCodes* out) {
    std::memset(out, 0, sizeof *out);
    unsigned code = 0;
    int k = 0;
    for (int len = 1; len <= 16; ++len) {
        for (int i = 0; i < bits[len - 1]; ++i) {
            out->code[values[k]] = static_cast<uint16_t>(code);
            out->size[values[k]] = static_cast<uint8_t>(len);
            ++code;
            ++k;
        }
        code <<= 1;
    }
}

// Tables that depend on nothing but T.81: built once per process.
struct StaticTables {
    HuffCodes lumaDc, lumaAc, chromaDc, chromaAc;
    uint8_t categoryStore[4096];  // magnitude category of -2048..2047
    const uint8_t* category;      // indexable by -2048..2047

    StaticTables() {
        BuildHuffCodes(kLumaDcBits, kLumaDcValues, &lumaDc);
        BuildHuffCodes(kLumaAcBits, kLumaAcValues, &lumaAc);
        BuildHuffCodes(kChromaDcBits, kChromaDcValues, &chromaDc);
        BuildHuffCodes(kChromaAcBits, kChromaAcValues, &chromaAc);
        for (int v = -2048; v < 2048; ++v) {
            int magnitude = v < 0 ? -v : v;
            int bits = 0;
            while (magnitude) {
                ++bits;
                magnitude >>= 1;
            }
            categoryStore[v + 2048] = static_cast<uint8_t>(bits);
        }
        category = categoryStore + 2048;
    }
};

const StaticTables& Tables() {
    static const StaticTables tables;
    return tables;
}

// Quantisers for one quality, zig-zag order, and the matching divisors in
// natural order.
struct QuantTable {
    unsigned char zigzag[64];
    alignas(16) float divisor[64];
};

int QualityScale(int quality) {
    quality = std::clamp(quality, 1, 100);
    return quality < 50 ? 5000 / quality : 200 - 2 * quality;
}

void BuildQuantTable(const unsigned char base[64], int scale, QuantTable* out) {
    for (int k = 0; k < 64; ++k) {
        const int natural = kNaturalOrder[k];
        long q = (static_cast<long>(base[natural]) * scale + 50) / 100;
        q = std::clamp(q, 1L, 255L);
        out->zigzag[k] = static_cast<unsigned char>(q);
        const int row = natural >> 3;
        const int col = natural & 7;
        out->divisor[natural] =
            static_cast<float>(1.0 / (static_cast<double>(q) * kAanScale[row] * kAanScale[col] * 8.0));
    }
}

// ---------------------------------------------------------------------------
// Forward DCT (AAN, floating point)

template <typename T>
T Splat(float c);
template <>
inline float Splat<float>(float c) {
    return c;
}

// One 8-point AAN pass over d[0..7] in place; d[u] receives coefficient u,
// scaled by the AAN factor of u. Written once for scalars and for vectors
// of lanes, so both paths perform the same operations in the same order.
template <typename T>
inline void Dct8(T& d0, T& d1, T& d2, T& d3, T& d4, T& d5, T& d6, T& d7) {
    const T tmp0 = d0 + d7;
    const T tmp7 = d0 - d7;
    const T tmp1 = d1 + d6;
    const T tmp6 = d1 - d6;
    const T tmp2 = d2 + d5;
    const T tmp5 = d2 - d5;
    const T tmp3 = d3 + d4;
    const T tmp4 = d3 - d4;

    // Even part.
    T tmp10 = tmp0 + tmp3;
    T tmp13 = tmp0 - tmp3;
    T tmp11 = tmp1 + tmp2;
    T tmp12 = tmp1 - tmp2;
    d0 = tmp10 + tmp11;
    d4 = tmp10 - tmp11;
    const T z1 = (tmp12 + tmp13) * Splat<T>(0.707106781f);
    d2 = tmp13 + z1;
    d6 = tmp13 - z1;

    // Odd part.
    tmp10 = tmp4 + tmp5;
    tmp11 = tmp5 + tmp6;
    tmp12 = tmp6 + tmp7;
    const T z5 = (tmp10 - tmp12) * Splat<T>(0.382683433f);
    const T z2 = Splat<T>(0.541196100f) * tmp10 + z5;
    const T z4 = Splat<T>(1.306562965f) * tmp12 + z5;
    const T z3 = tmp11 * Splat<T>(0.707106781f);
    const T z11 = tmp7 + z3;
    const T z13 = tmp7 - z3;
    d5 = z13 + z2;
    d3 = z13 - z2;
    d1 = z11 + z4;
    d7 = z11 - z4;
}

#if CAMCTL_JPEG_SSE2
template <>
inline __m128 Splat<__m128>(float c) {
    return _mm_set1_ps(c);
}

inline void Transpose4(__m128& a, __m128& b, __m128& c, __m128& d) {
    _MM_TRANSPOSE4_PS(a, b, c, d);
}

// DCT of a block held as 16 vectors: lo[r] = row r columns 0..3,
// hi[r] = row r columns 4..7. Leaves the coefficients in the same layout
// (row = vertical frequency, column = horizontal frequency).
__attribute__((always_inline)) inline void DctBlockVectors(__m128 lo[8], __m128 hi[8]) {
    // Columns as vectors over rows 0..3 (a) and rows 4..7 (b).
    __m128 a[8] = {lo[0], lo[1], lo[2], lo[3], hi[0], hi[1], hi[2], hi[3]};
    __m128 b[8] = {lo[4], lo[5], lo[6], lo[7], hi[4], hi[5], hi[6], hi[7]};
    Transpose4(a[0], a[1], a[2], a[3]);
    Transpose4(a[4], a[5], a[6], a[7]);
    Transpose4(b[0], b[1], b[2], b[3]);
    Transpose4(b[4], b[5], b[6], b[7]);
    // Row pass: four rows per vector, a[k] holds input column k.
    Dct8(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7]);
    Dct8(b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7]);
    // Back to rows: lo[r] = horizontal coefficients 0..3 of row r.
    Transpose4(a[0], a[1], a[2], a[3]);
    Transpose4(a[4], a[5], a[6], a[7]);
    Transpose4(b[0], b[1], b[2], b[3]);
    Transpose4(b[4], b[5], b[6], b[7]);
    lo[0] = a[0], lo[1] = a[1], lo[2] = a[2], lo[3] = a[3];
    hi[0] = a[4], hi[1] = a[5], hi[2] = a[6], hi[3] = a[7];
    lo[4] = b[0], lo[5] = b[1], lo[6] = b[2], lo[7] = b[3];
    hi[4] = b[4], hi[5] = b[5], hi[6] = b[6], hi[7] = b[7];
    // Column pass: eight columns at once, four per vector.
    Dct8(lo[0], lo[1], lo[2], lo[3], lo[4], lo[5], lo[6], lo[7]);
    Dct8(hi[0], hi[1], hi[2], hi[3], hi[4], hi[5], hi[6], hi[7]);
}
#endif

// ---------------------------------------------------------------------------
// Bit writer

class BitWriter {
public:
    BitWriter(unsigned char* pos, unsigned char* end) : pos_(pos), end_(end) {}

    // Appends the low `size` bits of `bits` (size <= 32), most significant first.
    inline void Put(uint32_t bits, int size) {
        if (size < free_) {
            free_ -= size;
            acc_ |= static_cast<uint64_t>(bits) << free_;
            return;
        }
        const int spill = size - free_;
        acc_ |= static_cast<uint64_t>(bits) >> spill;
        Flush64();
        free_ = 64 - spill;
        acc_ = spill ? static_cast<uint64_t>(bits) << free_ : 0;
    }

    // Completes the last byte with 1-bits and writes what is left.
    void Finish() {
        const int used = 64 - free_;
        if (used == 0) return;
        const int padded = (used + 7) & ~7;
        uint64_t acc = acc_ | (((uint64_t{1} << (padded - used)) - 1) << (64 - padded));
        for (int i = 0; i < padded / 8; ++i) {
            const unsigned char byte = static_cast<unsigned char>(acc >> 56);
            acc <<= 8;
            PutByteChecked(byte);
            if (byte == 0xFF) PutByteChecked(0);
        }
        acc_ = 0;
        free_ = 64;
    }

    unsigned char* pos() const { return pos_; }
    bool overflow() const { return overflow_; }

private:
    // Writes the 8 full bytes of the accumulator, stuffing a zero after
    // every 0xFF byte.
    inline void Flush64() {
        if (__builtin_expect(end_ - pos_ >= 16, 1)) {
            const uint64_t inverted = ~acc_;
            const bool hasFF =
                ((inverted - 0x0101010101010101ULL) & ~inverted & 0x8080808080808080ULL) != 0;
            if (!hasFF) {
                const uint64_t be = __builtin_bswap64(acc_);
                std::memcpy(pos_, &be, 8);
                pos_ += 8;
                return;
            }
            uint64_t acc = acc_;
            for (int i = 0; i < 8; ++i) {
                const unsigned char byte = static_cast<unsigned char>(acc >> 56);
                acc <<= 8;
                *pos_++ = byte;
                if (byte == 0xFF) *pos_++ = 0;
            }
            return;
        }
        uint64_t acc = acc_;
        for (int i = 0; i < 8; ++i) {
            const unsigned char byte = static_cast<unsigned char>(acc >> 56);
            acc <<= 8;
            PutByteChecked(byte);
            if (byte == 0xFF) PutByteChecked(0);
        }
    }

    void PutByteChecked(unsigned char byte) {
        if (pos_ < end_) {
            *pos_++ = byte;
        } else {
            overflow_ = true;
        }
    }

    unsigned char* pos_;
    unsigned char* end_;
    uint64_t acc_ = 0;  // pending bits, most significant first
    int free_ = 64;     // unused low bits of acc_
    bool overflow_ = false;
};

// ---------------------------------------------------------------------------
// Block coding

struct Component {
    const QuantTable* quant;
    const HuffCodes* dc;
    const HuffCodes* ac;
    int lastDc = 0;
};

// trunc(product + 0.5) in double precision: halves round up, negative
// values move toward zero.
inline int RoundHalfUpTowardZero(float product) {
    return static_cast<int>((static_cast<double>(product) + 16384.5) - 16384.0);
}

// Quantises the DCT output (natural order) into zig-zag order.
inline void Quantize(const float coef[64], const float divisor[64], int16_t zigzag[64]) {
    alignas(16) int16_t natural[64];
#if CAMCTL_JPEG_SSE2
    const __m128 half = _mm_set1_ps(0.5f);
    const __m128 minusHalf = _mm_set1_ps(-0.5f);
    const __m128i zero = _mm_setzero_si128();
    const __m128i maxAc = _mm_set1_epi16(kMaxAc);
    const __m128i minAc = _mm_set1_epi16(-kMaxAc);
    // trunc(p + 0.5) exactly, in single precision: with t = trunc(p) and the
    // exact fraction f = p - t, add 1 when f >= 0.5 (p positive) or when
    // t <= -1 and f > -0.5 (p negative; for -1 < p < 0 the result is 0).
    auto round4 = [&](__m128 p) {
        const __m128i t = _mm_cvttps_epi32(p);
        const __m128 f = _mm_sub_ps(p, _mm_cvtepi32_ps(t));
        const __m128i up = _mm_castps_si128(_mm_cmpge_ps(f, half));
        const __m128i upNegative =
            _mm_and_si128(_mm_castps_si128(_mm_cmpgt_ps(f, minusHalf)), _mm_cmplt_epi32(t, zero));
        return _mm_sub_epi32(_mm_sub_epi32(t, up), upNegative);
    };
    for (int i = 0; i < 64; i += 8) {
        const __m128i r0 = round4(_mm_mul_ps(_mm_load_ps(coef + i), _mm_load_ps(divisor + i)));
        const __m128i r1 = round4(_mm_mul_ps(_mm_load_ps(coef + i + 4), _mm_load_ps(divisor + i + 4)));
        __m128i packed = _mm_packs_epi32(r0, r1);
        packed = _mm_min_epi16(_mm_max_epi16(packed, minAc), maxAc);
        _mm_store_si128(reinterpret_cast<__m128i*>(natural + i), packed);
    }
    // The DC coefficient may reach -1024 (a black block); redo it unclamped.
    natural[0] = static_cast<int16_t>(
        std::clamp(RoundHalfUpTowardZero(coef[0] * divisor[0]), kMinDc, kMaxDc));
#else
    for (int i = 0; i < 64; ++i) {
        const int q = RoundHalfUpTowardZero(coef[i] * divisor[i]);
        natural[i] = static_cast<int16_t>(i == 0 ? std::clamp(q, kMinDc, kMaxDc)
                                                 : std::clamp(q, -kMaxAc, kMaxAc));
    }
#endif
#pragma GCC unroll 64
    for (int k = 0; k < 64; ++k) zigzag[k] = natural[kNaturalOrder[k]];
}

// Bit k set for every non-zero zig-zag coefficient k.
inline uint64_t NonZeroMask(const int16_t zigzag[64]) {
#if CAMCTL_JPEG_SSE2
    const __m128i zero = _mm_setzero_si128();
    uint64_t zeros = 0;
    for (int i = 0; i < 64; i += 16) {
        const __m128i a = _mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(zigzag + i)), zero);
        const __m128i b =
            _mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(zigzag + i + 8)), zero);
        zeros |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(a, b))))
                 << i;
    }
    return ~zeros;
#else
    uint64_t mask = 0;
    for (int k = 0; k < 64; ++k) {
        if (zigzag[k]) mask |= uint64_t{1} << k;
    }
    return mask;
#endif
}

// Value bits of a coefficient of category `size`: the value itself when
// positive, its one's complement when negative.
inline uint32_t ValueBits(int value, int size) {
    const int adjusted = value < 0 ? value - 1 : value;
    return static_cast<uint32_t>(adjusted) & ((1u << size) - 1);
}

inline void EncodeBlock(const int16_t zigzag[64], Component& comp, const uint8_t* category,
                        BitWriter& out) {
    // DC: difference to the previous block of this component.
    const int diff = zigzag[0] - comp.lastDc;
    comp.lastDc = zigzag[0];
    const int dcSize = category[diff];
    out.Put((static_cast<uint32_t>(comp.dc->code[dcSize]) << dcSize) | ValueBits(diff, dcSize),
            comp.dc->size[dcSize] + dcSize);

    // AC: (zero run, category) symbols up to the last non-zero coefficient.
    const HuffCodes& ac = *comp.ac;
    uint64_t mask = NonZeroMask(zigzag) & ~uint64_t{1};
    int last = 0;
    while (mask) {
        const int k = __builtin_ctzll(mask);
        mask &= mask - 1;
        int run = k - last - 1;
        while (run >= 16) {
            out.Put(ac.code[0xF0], ac.size[0xF0]);
            run -= 16;
        }
        const int value = zigzag[k];
        const int size = category[value];
        const int symbol = (run << 4) | size;
        out.Put((static_cast<uint32_t>(ac.code[symbol]) << size) | ValueBits(value, size),
                ac.size[symbol] + size);
        last = k;
    }
    if (last != 63) out.Put(ac.code[0x00], ac.size[0x00]);
}

// ---------------------------------------------------------------------------
// Block loading

// Level-shifted 8x8 samples, natural order.
struct alignas(16) Block {
    float s[64];
};

inline void LoadRows(const unsigned char* const rows[8], Block* b) {
    for (int r = 0; r < 8; ++r) {
        for (int c = 0; c < 8; ++c) b->s[r * 8 + c] = static_cast<float>(rows[r][c]) - 128.0f;
    }
}

#if CAMCTL_JPEG_SSE2
inline __m128 Shifted4(__m128i bytes16) {
    return _mm_sub_ps(_mm_cvtepi32_ps(bytes16), _mm_set1_ps(128.0f));
}

// 8 samples at p -> two vectors of level-shifted floats.
inline void Load8(const unsigned char* p, __m128& lo, __m128& hi) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i w = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)), zero);
    lo = Shifted4(_mm_unpacklo_epi16(w, zero));
    hi = Shifted4(_mm_unpackhi_epi16(w, zero));
}

// 4 chroma samples at p, each repeated twice -> two vectors.
inline void Load4Doubled(const unsigned char* p, __m128& lo, __m128& hi) {
    const __m128i zero = _mm_setzero_si128();
    uint32_t four;
    std::memcpy(&four, p, 4);
    const __m128i b = _mm_cvtsi32_si128(static_cast<int>(four));
    const __m128i doubled = _mm_unpacklo_epi8(b, b);  // s0 s0 s1 s1 s2 s2 s3 s3
    const __m128i w = _mm_unpacklo_epi8(doubled, zero);
    lo = Shifted4(_mm_unpacklo_epi16(w, zero));
    hi = Shifted4(_mm_unpackhi_epi16(w, zero));
}

inline void StoreVectors(const __m128 lo[8], const __m128 hi[8], float out[64]) {
    for (int r = 0; r < 8; ++r) {
        _mm_store_ps(out + r * 8, lo[r]);
        _mm_store_ps(out + r * 8 + 4, hi[r]);
    }
}
#endif

// Geometry of one encode call.
struct Picture {
    const unsigned char* y;
    const unsigned char* u;
    const unsigned char* v;
    int width, height;
    int stride;        // luma line length
    int chromaStride;  // stride / 2
    int chromaRows;    // height / 2
};

// DCT output of the luma block at block position (bx, by).
inline void LumaDct(const Picture& pic, int bx, int by, bool interior, float coef[64]) {
    const unsigned char* rows[8];
    for (int r = 0; r < 8; ++r) {
        const int py = std::min(by * 8 + r, pic.height - 1);
        rows[r] = pic.y + static_cast<size_t>(py) * pic.stride;
    }
#if CAMCTL_JPEG_SSE2
    if (interior) {
        __m128 lo[8], hi[8];
        for (int r = 0; r < 8; ++r) Load8(rows[r] + bx * 8, lo[r], hi[r]);
        DctBlockVectors(lo, hi);
        StoreVectors(lo, hi, coef);
        return;
    }
#endif
    unsigned char edge[8][8];
    const unsigned char* src[8];
    for (int r = 0; r < 8; ++r) {
        if (interior) {
            src[r] = rows[r] + bx * 8;
            continue;
        }
        for (int c = 0; c < 8; ++c) edge[r][c] = rows[r][std::min(bx * 8 + c, pic.width - 1)];
        src[r] = edge[r];
    }
    Block b;
    LoadRows(src, &b);
    jpeg_internal::ForwardDctVector(b.s, coef);
}

// DCT output of the chroma block at (bx, by), chroma replicated 2x2.
inline void ChromaDct(const Picture& pic, const unsigned char* plane, int bx, int by, bool interior,
                      float coef[64]) {
#if CAMCTL_JPEG_SSE2
    if (interior) {
        __m128 lo[8], hi[8];
        const unsigned char* base = plane + static_cast<size_t>(by) * 4 * pic.chromaStride + bx * 4;
        for (int r = 0; r < 8; r += 2) {
            Load4Doubled(base + static_cast<size_t>(r / 2) * pic.chromaStride, lo[r], hi[r]);
            lo[r + 1] = lo[r];
            hi[r + 1] = hi[r];
        }
        DctBlockVectors(lo, hi);
        StoreVectors(lo, hi, coef);
        return;
    }
#endif
    unsigned char edge[8][8];
    const unsigned char* rows[8];
    for (int r = 0; r < 8; ++r) {
        const int py = std::min(by * 8 + r, pic.height - 1);
        const int cy = std::min(py / 2, pic.chromaRows - 1);
        for (int c = 0; c < 8; ++c) {
            const int px = std::min(bx * 8 + c, pic.width - 1);
            const int cx = std::min(px / 2, pic.chromaStride - 1);
            edge[r][c] = plane[static_cast<size_t>(cy) * pic.chromaStride + cx];
        }
        rows[r] = edge[r];
    }
    Block b;
    LoadRows(rows, &b);
    jpeg_internal::ForwardDctVector(b.s, coef);
}

// ---------------------------------------------------------------------------
// Headers

unsigned char* PutMarker(unsigned char* p, unsigned char marker, int length) {
    *p++ = 0xFF;
    *p++ = marker;
    *p++ = static_cast<unsigned char>(length >> 8);
    *p++ = static_cast<unsigned char>(length & 0xFF);
    return p;
}

unsigned char* PutDht(unsigned char* p, unsigned char classId, const unsigned char bits[16],
                      const unsigned char* values, int count) {
    p = PutMarker(p, 0xC4, 2 + 1 + 16 + count);
    *p++ = classId;
    std::memcpy(p, bits, 16);
    p += 16;
    std::memcpy(p, values, count);
    return p + count;
}

unsigned char* WriteHeaders(unsigned char* p, int width, int height, const QuantTable& luma,
                            const QuantTable& chroma) {
    // SOI
    *p++ = 0xFF;
    *p++ = 0xD8;
    // APP0: JFIF 1.1, no units, density 1:1, no thumbnail.
    p = PutMarker(p, 0xE0, 16);
    static const unsigned char kJfif[14] = {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0};
    std::memcpy(p, kJfif, sizeof kJfif);
    p += sizeof kJfif;
    // DQT, luminance then chrominance.
    p = PutMarker(p, 0xDB, 67);
    *p++ = 0x00;
    std::memcpy(p, luma.zigzag, 64);
    p += 64;
    p = PutMarker(p, 0xDB, 67);
    *p++ = 0x01;
    std::memcpy(p, chroma.zigzag, 64);
    p += 64;
    // SOF0: 8-bit, three components sampled 1x1.
    p = PutMarker(p, 0xC0, 17);
    *p++ = 8;
    *p++ = static_cast<unsigned char>(height >> 8);
    *p++ = static_cast<unsigned char>(height & 0xFF);
    *p++ = static_cast<unsigned char>(width >> 8);
    *p++ = static_cast<unsigned char>(width & 0xFF);
    *p++ = 3;
    static const unsigned char kComponents[9] = {1, 0x11, 0, 2, 0x11, 1, 3, 0x11, 1};
    std::memcpy(p, kComponents, sizeof kComponents);
    p += sizeof kComponents;
    // DHT: luminance DC, luminance AC, chrominance DC, chrominance AC.
    p = PutDht(p, 0x00, kLumaDcBits, kLumaDcValues, 12);
    p = PutDht(p, 0x10, kLumaAcBits, kLumaAcValues, 162);
    p = PutDht(p, 0x01, kChromaDcBits, kChromaDcValues, 12);
    p = PutDht(p, 0x11, kChromaAcBits, kChromaAcValues, 162);
    // SOS: all three components, full spectrum.
    p = PutMarker(p, 0xDA, 12);
    static const unsigned char kScan[10] = {3, 1, 0x00, 2, 0x11, 3, 0x11, 0, 63, 0};
    std::memcpy(p, kScan, sizeof kScan);
    return p + sizeof kScan;
}

}  // namespace

namespace jpeg_internal {

void ForwardDctPlain(const float in[64], float out[64]) {
    float w[64];
    std::memcpy(w, in, sizeof w);
    for (int r = 0; r < 8; ++r) {
        float* d = w + r * 8;
        Dct8(d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
    }
    for (int c = 0; c < 8; ++c) {
        float* d = w + c;
        Dct8(d[0], d[8], d[16], d[24], d[32], d[40], d[48], d[56]);
    }
    std::memcpy(out, w, sizeof w);
}

void ForwardDctVector(const float in[64], float out[64]) {
#if CAMCTL_JPEG_SSE2
    __m128 lo[8], hi[8];
    for (int r = 0; r < 8; ++r) {
        lo[r] = _mm_loadu_ps(in + r * 8);
        hi[r] = _mm_loadu_ps(in + r * 8 + 4);
    }
    DctBlockVectors(lo, hi);
    for (int r = 0; r < 8; ++r) {
        _mm_storeu_ps(out + r * 8, lo[r]);
        _mm_storeu_ps(out + r * 8 + 4, hi[r]);
    }
#else
    ForwardDctPlain(in, out);
#endif
}

int RoundQuantized(float product) {
    return RoundHalfUpTowardZero(product);
}

void QuantizeBlock(const float coef[64], const float divisor[64], int16_t zigzag[64]) {
    alignas(16) float c[64];
    alignas(16) float d[64];
    std::memcpy(c, coef, sizeof c);
    std::memcpy(d, divisor, sizeof d);
    Quantize(c, d, zigzag);
}

}  // namespace jpeg_internal

int JpegEncodeYuv(const unsigned char* y, const unsigned char* u, const unsigned char* v, int width,
                  int height, int quality, int stride, unsigned char* out, uint32_t* outLength,
                  size_t capacity) {
    if (outLength) *outLength = 0;
    if (!y || !u || !v || !out || !outLength) return -1;
    if (width < 2 || height < 2 || width > 65535 || height > 65535 || stride < width) return -1;
    if (capacity < kHeaderBytes + kTrailerBytes) return -1;

    const StaticTables& tables = Tables();
    const int scale = QualityScale(quality);
    QuantTable lumaQuant, chromaQuant;
    BuildQuantTable(kLumaQuantBase, scale, &lumaQuant);
    BuildQuantTable(kChromaQuantBase, scale, &chromaQuant);

    unsigned char* p = WriteHeaders(out, width, height, lumaQuant, chromaQuant);

    const Picture pic{y, u, v, width, height, stride, stride / 2, height / 2};
    Component comps[3] = {{&lumaQuant, &tables.lumaDc, &tables.lumaAc},
                          {&chromaQuant, &tables.chromaDc, &tables.chromaAc},
                          {&chromaQuant, &tables.chromaDc, &tables.chromaAc}};

    // The entropy-coded data may use everything but the room for EOI.
    BitWriter bits(p, out + capacity - kTrailerBytes);
    const int blocksX = (width + 7) / 8;
    const int blocksY = (height + 7) / 8;
    alignas(16) float coef[64];
    alignas(16) int16_t zigzag[64];
    for (int by = 0; by < blocksY && !bits.overflow(); ++by) {
        const bool fullRow = by * 8 + 8 <= height;
        for (int bx = 0; bx < blocksX; ++bx) {
            const bool interior = fullRow && bx * 8 + 8 <= width;
            LumaDct(pic, bx, by, interior, coef);
            Quantize(coef, lumaQuant.divisor, zigzag);
            EncodeBlock(zigzag, comps[0], tables.category, bits);

            ChromaDct(pic, u, bx, by, interior, coef);
            Quantize(coef, chromaQuant.divisor, zigzag);
            EncodeBlock(zigzag, comps[1], tables.category, bits);

            ChromaDct(pic, v, bx, by, interior, coef);
            Quantize(coef, chromaQuant.divisor, zigzag);
            EncodeBlock(zigzag, comps[2], tables.category, bits);
        }
    }
    bits.Finish();
    if (bits.overflow()) return -1;

    p = bits.pos();
    *p++ = 0xFF;
    *p++ = 0xD9;
    *outLength = static_cast<uint32_t>(p - out);
    return 0;
}

int JpegEncodeYuv(const unsigned char* y, const unsigned char* u, const unsigned char* v, int width,
                  int height, int quality, int stride, unsigned char* out, uint32_t* outLength) {
    const size_t capacity =
        width > 0 && height > 0 ? static_cast<size_t>(width) * static_cast<size_t>(height) * 3 : 0;
    return JpegEncodeYuv(y, u, v, width, height, quality, stride, out, outLength, capacity);
}
