// Snapshot writers and folder helpers: files are read back with libjpeg,
// ffmpeg and ffprobe.
#include "snapshot_writer.h"

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/fixtures.h"
#include "support/pictures.h"

namespace {

using camctl_test::DecodeJpeg;
using camctl_test::DecodedJpeg;
using camctl_test::FileExists;
using camctl_test::FlipRows;
using camctl_test::Psnr;
using camctl_test::RawTestFrame;
using camctl_test::ReadFileBytes;
using camctl_test::TempDir;

uint32_t Le32(const std::vector<unsigned char>& f, size_t at) {
    return f[at] | f[at + 1] << 8 | f[at + 2] << 16 | static_cast<uint32_t>(f[at + 3]) << 24;
}

uint32_t Le16(const std::vector<unsigned char>& f, size_t at) {
    return f[at] | f[at + 1] << 8;
}

// Swaps the first and third byte of every pixel.
std::vector<unsigned char> SwapRedBlue(std::vector<unsigned char> p) {
    for (size_t i = 0; i + 2 < p.size(); i += 3) std::swap(p[i], p[i + 2]);
    return p;
}

TEST(SnapshotWriter_Folders, MakeDirectoriesCreatesOnlyWhatIsMissing) {
    TempDir dir;
    ASSERT_TRUE(IsDirectory(dir.path().c_str()));
    ASSERT_EQ(mkdir((dir / "a").c_str(), 0755), 0);
    const std::string ab = dir / "a/b";
    EXPECT_FALSE(IsDirectory(ab.c_str()));
    EXPECT_TRUE(MakeDirectories(ab.c_str()));
    EXPECT_TRUE(IsDirectory(ab.c_str()));
    // Existing folder: nothing is created, still true.
    EXPECT_TRUE(MakeDirectories(ab.c_str()));
    EXPECT_EQ(camctl_test::ListFiles(dir.path()).size(), 0u);

    // Several levels at once, doubled and trailing separators skipped.
    const std::string deep = dir.path() + "//x///y/z/";
    EXPECT_TRUE(MakeDirectories(deep.c_str()));
    EXPECT_TRUE(IsDirectory((dir / "x/y/z").c_str()));

    // A file is not a folder, and a folder below a file cannot be made.
    const std::string file = dir / "file";
    FILE* f = fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    EXPECT_FALSE(IsDirectory(file.c_str()));
    EXPECT_TRUE(MakeDirectories((file + "/sub").c_str()));
    EXPECT_FALSE(IsDirectory((file + "/sub").c_str()));
    EXPECT_FALSE(IsDirectory((dir / "missing").c_str()));
    EXPECT_FALSE(IsDirectory(nullptr));
}

TEST(SnapshotWriter_Folders, RelativePathsStartInTheWorkingFolder) {
    TempDir dir;
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    const bool made = MakeDirectories("VMS/cam+1/IMAGE");
    const bool isDir = IsDirectory("VMS/cam+1/IMAGE");
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_TRUE(made);
    EXPECT_TRUE(isDir);
    EXPECT_TRUE(IsDirectory((dir / "VMS/cam+1/IMAGE").c_str()));
}

TEST(SnapshotWriter_Bmp, HeaderFieldsAndRoundTripUpright) {
    // 25 x 10 at 24 bits: rows of 75 bytes padded to 76, image 760, file 814.
    const int w = 25, h = 10, row = 76;
    const std::vector<unsigned char> topDown = RawTestFrame("testsrc", w, h, "bgr24");
    std::vector<unsigned char> bmpData(static_cast<size_t>(row) * h, 0);
    for (int r = 0; r < h; ++r) {
        std::copy(topDown.begin() + r * w * 3, topDown.begin() + (r + 1) * w * 3,
                  bmpData.begin() + (h - 1 - r) * row);
    }
    TempDir dir;
    const std::string path = dir / "snap.bmp";
    EXPECT_FALSE(SaveBmpFile(path.c_str(), bmpData.data(), w, h, 24));  // false even on success

    const std::vector<unsigned char> f = ReadFileBytes(path);
    ASSERT_EQ(f.size(), 814u);
    EXPECT_EQ(f[0], 'B');
    EXPECT_EQ(f[1], 'M');
    EXPECT_EQ(Le32(f, 2), 814u);
    EXPECT_EQ(Le32(f, 6), 0u);
    EXPECT_EQ(Le32(f, 10), 54u);
    EXPECT_EQ(Le32(f, 14), 40u);
    EXPECT_EQ(Le32(f, 18), 25u);
    EXPECT_EQ(Le32(f, 22), 10u);
    EXPECT_EQ(Le16(f, 26), 1u);
    EXPECT_EQ(Le16(f, 28), 24u);
    EXPECT_EQ(Le32(f, 30), 0u);
    EXPECT_EQ(Le32(f, 34), 760u);
    for (size_t at = 38; at < 54; at += 4) EXPECT_EQ(Le32(f, at), 0u) << at;
    EXPECT_EQ(std::vector<unsigned char>(f.begin() + 54, f.end()), bmpData);

    // ffmpeg reads it back as the upright picture.
    std::string raw;
    ASSERT_EQ(camctl_test::RunCommand("ffmpeg -v error -i '" + path + "' -f rawvideo -pix_fmt bgr24 -", &raw), 0);
    EXPECT_EQ(std::vector<unsigned char>(raw.begin(), raw.end()), topDown);
}

TEST(SnapshotWriter_Bmp, UnwritablePathAndBadArgumentsWriteNothing) {
    TempDir dir;
    std::vector<unsigned char> data(64 * 4, 1);
    EXPECT_FALSE(SaveBmpFile((dir / "no/such/folder.bmp").c_str(), data.data(), 8, 8, 32));
    EXPECT_FALSE(SaveBmpFile((dir / "zero.bmp").c_str(), data.data(), 0, 8, 24));
    EXPECT_FALSE(FileExists(dir / "zero.bmp"));
    // 32 bits per pixel: rows need no padding.
    EXPECT_FALSE(SaveBmpFile((dir / "32.bmp").c_str(), data.data(), 8, 8, 32));
    EXPECT_EQ(camctl_test::FileSize(dir / "32.bmp"), 54 + 256);
}

class SnapshotWriterJpeg : public ::testing::Test {
protected:
    static constexpr int kW = 640, kH = 480;
    void SetUp() override {
        topDownBgr_ = RawTestFrame("testsrc", kW, kH, "bgr24", 3);
        bottomUpBgr_ = FlipRows(topDownBgr_.data(), kW * 3, kH);
    }
    std::vector<unsigned char> topDownBgr_, bottomUpBgr_;
    TempDir dir_;
};

TEST_F(SnapshotWriterJpeg, BottomUpBgrComesOutUprightAndTheBufferIsSwapped) {
    const std::string path = dir_ / "snap.jpg";
    std::vector<unsigned char> buffer = bottomUpBgr_;
    EXPECT_EQ(SaveJpegFile(path.c_str(), buffer.data(), kW, kH, 3), 0);
    // The caller's buffer now holds red-green-blue.
    EXPECT_EQ(buffer, SwapRedBlue(bottomUpBgr_));

    const DecodedJpeg d = DecodeJpeg(ReadFileBytes(path), JCS_RGB);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.warnings, 0);
    ASSERT_EQ(d.width, kW);
    ASSERT_EQ(d.height, kH);
    const std::vector<unsigned char> uprightRgb = SwapRedBlue(topDownBgr_);
    const std::vector<unsigned char> flippedRgb = FlipRows(uprightRgb.data(), kW * 3, kH);
    const double upright = Psnr(uprightRgb.data(), d.pixels.data(), uprightRgb.size());
    const double flipped = Psnr(flippedRgb.data(), d.pixels.data(), flippedRgb.size());
    const double swapped = Psnr(topDownBgr_.data(), d.pixels.data(), topDownBgr_.size());
    EXPECT_GT(upright, 25.0);  // quality 100, but chroma subsampled 2x2 by libjpeg
    EXPECT_GT(upright, flipped + 10);
    EXPECT_GT(upright, swapped + 10);

    EXPECT_EQ(camctl_test::Ffprobe("-select_streams v:0 -show_entries stream=codec_name,width,height -of csv=p=0",
                                   path),
              "mjpeg,640,480\n");
    // Quality 100: every quantiser in every DQT segment is 1.
    const std::vector<unsigned char> f = ReadFileBytes(path);
    int tables = 0;
    for (size_t at = 2; at + 4 <= f.size() && f[at] == 0xFF && f[at + 1] != 0xDA;
         at += 2 + (f[at + 2] << 8 | f[at + 3])) {
        if (f[at + 1] != 0xDB) continue;
        const size_t end = at + 2 + (f[at + 2] << 8 | f[at + 3]);
        for (size_t t = at + 4; t + 65 <= end; t += 65, ++tables) {
            EXPECT_EQ(f[t] >> 4, 0);  // 8-bit precision
            EXPECT_EQ(std::vector<unsigned char>(f.begin() + t + 1, f.begin() + t + 65), std::vector<unsigned char>(64, 1));
        }
    }
    EXPECT_EQ(tables, 2);
}

TEST_F(SnapshotWriterJpeg, UnwritablePathReportsOnStderr) {
    std::vector<unsigned char> buffer = bottomUpBgr_;
    const std::string path = dir_ / "missing/snap.jpg";
    testing::internal::CaptureStderr();
    EXPECT_EQ(SaveJpegFile(path.c_str(), buffer.data(), kW, kH, 3), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "can't open " + path + "\n");
    EXPECT_EQ(SaveJpegFile((dir_ / "x.jpg").c_str(), buffer.data(), kW, kH, 4), -1);
    EXPECT_EQ(SaveJpegFile((dir_ / "x.jpg").c_str(), buffer.data(), 0, kH, 3), -1);
    EXPECT_EQ(SaveJpegFile((dir_ / "x.jpg").c_str(), nullptr, kW, kH, 3), -1);
    EXPECT_FALSE(FileExists(dir_ / "x.jpg"));
}

TEST_F(SnapshotWriterJpeg, YuvSnapshotThroughTheLibraryEncoder) {
    const std::vector<unsigned char> yuv = RawTestFrame("testsrc", kW, kH, "yuv420p", 3);
    const std::string path = dir_ / "yuv.jpg";
    EXPECT_EQ(SaveYuvJpegFile(path.c_str(), yuv.data(), kW, kH), 0);

    const std::string probe = camctl_test::Ffprobe(
        "-select_streams v:0 -show_entries stream=codec_name,width,height,pix_fmt -of csv=p=0", path);
    EXPECT_EQ(probe, "mjpeg,640,480,yuvj444p\n");
    const DecodedJpeg d = DecodeJpeg(ReadFileBytes(path), JCS_YCbCr);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.warnings, 0);
    const std::vector<unsigned char> expected = camctl_test::I420ToYuv444(yuv.data(), kW, kH);
    EXPECT_GE(Psnr(expected.data(), d.pixels.data(), expected.size()), 45.0);
}

TEST_F(SnapshotWriterJpeg, YuvSnapshotFailuresArePrintedAndLeaveNoFile) {
    const std::vector<unsigned char> yuv = RawTestFrame("testsrc", kW, kH, "yuv420p", 3);
    const std::string missing = dir_ / "missing/yuv.jpg";
    testing::internal::CaptureStderr();
    EXPECT_EQ(SaveYuvJpegFile(missing.c_str(), yuv.data(), kW, kH), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("PRINT "), std::string::npos) << log;
    EXPECT_NE(log.find("can't open " + missing + "\n"), std::string::npos) << log;

    // A picture too small for its own headers within width * height * 3.
    const std::string tiny = dir_ / "tiny.jpg";
    std::vector<unsigned char> small(8 * 8 * 3 / 2, 128);
    testing::internal::CaptureStderr();
    EXPECT_EQ(SaveYuvJpegFile(tiny.c_str(), small.data(), 8, 8), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(FileExists(tiny));
}

}  // namespace
