#include "support/pictures.h"

#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <stdexcept>

#include <jpeglib.h>

#include "support/fixtures.h"

namespace camctl_test {

std::vector<unsigned char> RedOverBlue(int width, int height) {
    std::vector<unsigned char> pic(static_cast<size_t>(width) * height * 3);
    for (int row = 0; row < height; ++row)  // row 0 is the bottom line
        for (int x = 0; x < width; ++x) {
            unsigned char* p = &pic[(static_cast<size_t>(row) * width + x) * 3];
            p[0] = row >= height / 2 ? 0 : 255;
            p[1] = 0;
            p[2] = row >= height / 2 ? 255 : 0;
        }
    return pic;
}

std::vector<unsigned char> RawTestFrame(const std::string& source, int width, int height,
                                        const std::string& pixFmt, int frame) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    const std::string name = source + "_" + size + "_" + pixFmt + "_f" + std::to_string(frame) + ".raw";
    const std::string path = Fixture(
        name, "-f lavfi -i " + source + "=size=" + size + ":rate=25 -vf trim=start_frame=" +
                  std::to_string(frame) + " -frames:v 1 -pix_fmt " + pixFmt + " -f rawvideo");
    std::vector<unsigned char> bytes = ReadFileBytes(path);
    if (bytes.empty()) throw std::runtime_error("empty fixture " + path);
    return bytes;
}

namespace {

struct ErrorTrap {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
};

[[noreturn]] void TrapExit(j_common_ptr cinfo) {
    std::longjmp(reinterpret_cast<ErrorTrap*>(cinfo->err)->jump, 1);
}

void Quiet(j_common_ptr, int) {}

// Free of objects with destructors between setjmp and the calls that may jump.
bool DecodeInto(const std::vector<unsigned char>& file, int colorSpace, DecodedJpeg* out) {
    jpeg_decompress_struct cinfo;
    ErrorTrap trap;
    cinfo.err = jpeg_std_error(&trap.mgr);
    trap.mgr.error_exit = TrapExit;
    trap.mgr.emit_message = Quiet;
    if (setjmp(trap.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, file.data(), static_cast<unsigned long>(file.size()));
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = static_cast<J_COLOR_SPACE>(colorSpace);
    jpeg_start_decompress(&cinfo);
    out->width = static_cast<int>(cinfo.output_width);
    out->height = static_cast<int>(cinfo.output_height);
    out->components = cinfo.output_components;
    out->mcusPerRow = static_cast<int>(cinfo.MCUs_per_row);
    out->mcuRows = static_cast<int>(cinfo.MCU_rows_in_scan);
    const size_t rowBytes = static_cast<size_t>(out->width) * out->components;
    out->pixels.assign(rowBytes * out->height, 0);
    unsigned char* pixels = out->pixels.data();
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = pixels + rowBytes * cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    out->warnings = static_cast<int>(trap.mgr.num_warnings);
    jpeg_destroy_decompress(&cinfo);
    return true;
}

}  // namespace

DecodedJpeg DecodeJpeg(const std::vector<unsigned char>& file, int colorSpace) {
    DecodedJpeg out;
    out.ok = !file.empty() && DecodeInto(file, colorSpace, &out);
    return out;
}

double Psnr(const unsigned char* a, const unsigned char* b, size_t size) {
    if (size == 0) return 0;
    double sum = 0;
    for (size_t i = 0; i < size; ++i) {
        const double d = static_cast<double>(a[i]) - b[i];
        sum += d * d;
    }
    if (sum == 0) return 1000;
    return 10.0 * std::log10(255.0 * 255.0 * static_cast<double>(size) / sum);
}

std::vector<unsigned char> I420ToYuv444(const unsigned char* yuv, int width, int height) {
    const size_t plane = static_cast<size_t>(width) * height;
    const unsigned char* u = yuv + plane;
    const unsigned char* v = yuv + plane * 5 / 4;
    std::vector<unsigned char> out(plane * 3);
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            unsigned char* px = &out[(static_cast<size_t>(r) * width + c) * 3];
            const size_t chroma = static_cast<size_t>(r / 2) * (width / 2) + c / 2;
            px[0] = yuv[static_cast<size_t>(r) * width + c];
            px[1] = u[chroma];
            px[2] = v[chroma];
        }
    }
    return out;
}

std::vector<unsigned char> FlipRows(const unsigned char* data, int rowBytes, int rows) {
    std::vector<unsigned char> out(static_cast<size_t>(rowBytes) * rows);
    for (int r = 0; r < rows; ++r) {
        std::copy(data + static_cast<size_t>(r) * rowBytes, data + static_cast<size_t>(r + 1) * rowBytes,
                  out.begin() + static_cast<size_t>(rows - 1 - r) * rowBytes);
    }
    return out;
}

}  // namespace camctl_test
