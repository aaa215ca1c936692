#include "snapshot_writer.h"

#include <algorithm>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <jpeglib.h>

#include "jpeg_encoder.h"
#include "runtime/os.h"

namespace {

constexpr int kJpegQuality = 100;
constexpr mode_t kFolderMode = 0755;
constexpr size_t kPathSize = 256;  // longer paths are cut
constexpr uint32_t kBmpFileHeaderSize = 14;
constexpr uint32_t kBmpInfoHeaderSize = 40;
constexpr uint32_t kBmpHeaderSize = kBmpFileHeaderSize + kBmpInfoHeaderSize;
constexpr int kBmpBitsPerPixel = 24;
constexpr int kRgbBytesPerPixel = 3;

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

void PutLe16(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void PutLe32(unsigned char* p, uint32_t v) {
    PutLe16(p, v & 0xFFFF);
    PutLe16(p + 2, v >> 16);
}

// libjpeg reports fatal errors through error_exit, whose standard version
// ends the process; ours prints the message and jumps back to the caller.
struct JpegErrorTrap {
    jpeg_error_mgr mgr;  // first member: libjpeg hands out &mgr as cinfo->err
    std::jmp_buf jump;
};

[[noreturn]] void JpegErrorExit(j_common_ptr cinfo) {
    (*cinfo->err->output_message)(cinfo);
    std::longjmp(reinterpret_cast<JpegErrorTrap*>(cinfo->err)->jump, 1);
}

// Compresses an RGB picture whose rows are stored bottom-up, writing the
// rows from the last one in memory to the first so the image is upright.
// Kept free of objects with destructors: libjpeg errors long-jump into it.
int CompressRgbBottomUp(const char* path, unsigned char* data, int width, int height) {
    jpeg_compress_struct cinfo;
    JpegErrorTrap trap;
    cinfo.err = jpeg_std_error(&trap.mgr);
    trap.mgr.error_exit = JpegErrorExit;
    FILE* volatile file = nullptr;
    if (setjmp(trap.jump)) {
        jpeg_destroy_compress(&cinfo);
        if (file) {
            fclose(file);
            unlink(path);
        }
        return -1;
    }
    jpeg_create_compress(&cinfo);
    file = fopen(path, "wb");
    if (!file) {
        fprintf(stderr, "can't open %s\n", path);
        jpeg_destroy_compress(&cinfo);
        return -1;
    }
    jpeg_stdio_dest(&cinfo, file);
    cinfo.image_width = static_cast<JDIMENSION>(width);
    cinfo.image_height = static_cast<JDIMENSION>(height);
    cinfo.input_components = kRgbBytesPerPixel;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, kJpegQuality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    const size_t rowBytes = static_cast<size_t>(width) * kRgbBytesPerPixel;
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = data + static_cast<size_t>(height - 1 - static_cast<int>(cinfo.next_scanline)) * rowBytes;
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    fclose(file);
    return 0;
}

}  // namespace

bool IsDirectory(const char* path) {
    struct stat st;
    return path && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool MakeDirectories(const char* path) {
    if (!path || !*path || IsDirectory(path)) return true;
    char copy[kPathSize];
    snprintf(copy, sizeof copy, "%s", path);
    // Rebuild the path one component at a time; doubled separators give
    // empty components, which strtok_r skips.
    std::string prefix = copy[0] == '/' ? "/" : "";
    char* save = nullptr;
    for (char* part = strtok_r(copy, "/", &save); part; part = strtok_r(nullptr, "/", &save)) {
        prefix += part;
        prefix += '/';
        if (!IsDirectory(prefix.c_str())) mkdir(prefix.c_str(), kFolderMode);
    }
    return true;
}

namespace {

// The file header and information header of an uncompressed BMP whose rows
// are stored bottom-up.
void FillBmpHeader(unsigned char (&header)[kBmpHeaderSize], int width, int height, int bitsPerPixel, uint32_t imageSize) {
    std::fill(std::begin(header), std::end(header), 0);
    header[0] = 'B';
    header[1] = 'M';
    PutLe32(header + 2, imageSize + kBmpHeaderSize);  // file size
    PutLe32(header + 10, kBmpHeaderSize);             // offset of the pixels
    PutLe32(header + kBmpFileHeaderSize, kBmpInfoHeaderSize);
    PutLe32(header + 18, static_cast<uint32_t>(width));
    PutLe32(header + 22, static_cast<uint32_t>(height));  // positive: rows bottom-up
    PutLe16(header + 26, 1);                              // planes
    PutLe16(header + 28, static_cast<uint32_t>(bitsPerPixel));
    PutLe32(header + 34, imageSize);
}

}  // namespace

bool SaveBmpFile(const char* path, const unsigned char* data, int width, int height, int bitsPerPixel) {
    if (!path || !data || width <= 0 || height <= 0 || bitsPerPixel <= 0) return false;
    const int64_t rowBytes = (static_cast<int64_t>(width) * bitsPerPixel / 8 + 3) / 4 * 4;
    const int64_t imageSize = rowBytes * height;
    if (imageSize + kBmpHeaderSize > UINT32_MAX) return false;
    FilePtr file(fopen(path, "wb"));
    if (!file) return false;

    unsigned char header[kBmpHeaderSize];
    FillBmpHeader(header, width, height, bitsPerPixel, static_cast<uint32_t>(imageSize));
    fwrite(header, 1, sizeof header, file.get());
    fwrite(data, 1, static_cast<size_t>(imageSize), file.get());
    return false;
}

bool SaveBmpFileUnpadded(const char* path, const unsigned char* data, int width, int height) {
    if (!path || !path[0] || !data || width <= 0 || height <= 0) return false;
    const uint64_t rowBytes = static_cast<uint64_t>(width) * kRgbBytesPerPixel;
    const uint64_t paddedRow = (rowBytes + 3) / 4 * 4;
    const uint64_t imageSize = paddedRow * static_cast<uint64_t>(height);
    if (imageSize + kBmpHeaderSize > UINT32_MAX) return false;
    FilePtr file(fopen(path, "wb"));
    if (!file) return false;

    unsigned char header[kBmpHeaderSize];
    FillBmpHeader(header, width, height, kBmpBitsPerPixel, static_cast<uint32_t>(imageSize));
    bool ok = fwrite(header, 1, sizeof header, file.get()) == sizeof header;
    static const unsigned char kPad[3] = {0, 0, 0};  // at most 3 bytes of row padding
    for (int row = 0; ok && row < height; ++row) {
        ok = fwrite(data + static_cast<size_t>(row) * rowBytes, 1, rowBytes, file.get()) == rowBytes;
        if (ok && paddedRow > rowBytes)
            ok = fwrite(kPad, 1, paddedRow - rowBytes, file.get()) == paddedRow - rowBytes;
    }
    return ok;
}

int SaveJpegFile(const char* path, unsigned char* data, int width, int height, int bytesPerPixel) {
    if (!path || !data || width <= 0 || height <= 0 || width > JPEG_MAX_DIMENSION ||
        height > JPEG_MAX_DIMENSION || bytesPerPixel != kRgbBytesPerPixel) {
        return -1;
    }
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    for (size_t i = 0; i < pixels; ++i) std::swap(data[i * kRgbBytesPerPixel], data[i * kRgbBytesPerPixel + 2]);
    return CompressRgbBottomUp(path, data, width, height);
}

int SaveYuvJpegFile(const char* path, const unsigned char* yuv, int width, int height) {
    if (!path) return -1;
    FilePtr file(fopen(path, "wb"));
    if (!file) {
        os_print("can't open %s\n", path);
        return -1;
    }
    const size_t plane = width > 0 && height > 0 ? static_cast<size_t>(width) * static_cast<size_t>(height) : 0;
    std::vector<unsigned char> encoded(plane * kRgbBytesPerPixel);
    uint32_t length = 0;
    if (!yuv || plane == 0 ||
        JpegEncodeYuv(yuv, yuv + plane, yuv + plane * 5 / 4, width, height, kJpegQuality, width, encoded.data(),
                      &length) != 0) {
        os_print("can't encode %s\n", path);
        file.reset();
        unlink(path);
        return -1;
    }
    fwrite(encoded.data(), 1, length, file.get());
    return 0;
}
