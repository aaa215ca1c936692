// Faults caught: folders not made or made wrong, BMP padding/orientation/size, JPEG upside down or red-blue swapped, low quality, bad input accepted, missing error text.
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

using namespace camctl_test;

std::vector<unsigned char> SwapRedBlue(std::vector<unsigned char> p) {
    for (size_t i = 0; i + 2 < p.size(); i += 3) std::swap(p[i], p[i + 2]);
    return p;
}

TEST(SnapshotWriterFolders, MakeDirectoriesCreatesOnlyWhatIsMissing) {
    TempDir dir;
    ASSERT_EQ(mkdir((dir / "a").c_str(), 0755), 0);
    const std::string file = dir / "file";
    fclose(fopen(file.c_str(), "w"));
    EXPECT_FALSE(IsDirectory((dir / "a/b").c_str()));
    EXPECT_FALSE(IsDirectory(file.c_str()));
    EXPECT_FALSE(IsDirectory(nullptr));
    // Existing levels are kept; doubled and trailing separators are skipped.
    for (const std::string& p : {dir / "a/b", dir / "a/b", dir.path() + "//x///y/z/"}) {
        EXPECT_TRUE(MakeDirectories(p.c_str())) << p;
        EXPECT_TRUE(IsDirectory(p.c_str())) << p;
    }
    EXPECT_TRUE(MakeDirectories((file + "/sub").c_str())) << "reported made";
    EXPECT_FALSE(IsDirectory((file + "/sub").c_str())) << "but nothing below a file";
    EXPECT_EQ(ListFiles(dir.path()), std::vector<std::string>{file});

    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    const bool made = MakeDirectories("VMS/cam+1/IMAGE");
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_TRUE(made);
    EXPECT_TRUE(IsDirectory((dir / "VMS/cam+1/IMAGE").c_str())) << "relative to the working folder";
}

TEST(SnapshotWriterBmp, PaddedRowsReadBackUprightAndBadCallsWriteNothing) {
    const int w = 25, h = 10, row = 76;  // 75 bytes a row, padded to 76
    const std::vector<unsigned char> topDown = RawTestFrame("testsrc", w, h, "bgr24");
    std::vector<unsigned char> bottomUp(static_cast<size_t>(row) * h, 0);
    for (int r = 0; r < h; ++r)
        std::copy(topDown.begin() + r * w * 3, topDown.begin() + (r + 1) * w * 3, bottomUp.begin() + (h - 1 - r) * row);
    TempDir dir;
    const std::string path = dir / "snap.bmp";
    EXPECT_FALSE(SaveBmpFile(path.c_str(), bottomUp.data(), w, h, 24));  // false even on success
    const std::vector<unsigned char> f = ReadFileBytes(path);
    ASSERT_EQ(f.size(), 54u + bottomUp.size());
    EXPECT_EQ(std::string(f.begin(), f.begin() + 2), "BM");
    EXPECT_EQ(std::vector<unsigned char>(f.end() - bottomUp.size(), f.end()), bottomUp);
    EXPECT_EQ(Ffprobe("-show_entries stream=codec_name,width,height,pix_fmt -of csv=p=0", path), "bmp,25,10,bgr24\n");
    std::string raw;
    ASSERT_EQ(RunCommand("ffmpeg -v error -i '" + path + "' -f rawvideo -pix_fmt bgr24 -", &raw), 0);
    EXPECT_EQ(std::vector<unsigned char>(raw.begin(), raw.end()), topDown);

    std::vector<unsigned char> data(64 * 4, 1);
    EXPECT_FALSE(SaveBmpFile((dir / "no/such/folder.bmp").c_str(), data.data(), 8, 8, 32));
    EXPECT_FALSE(SaveBmpFile((dir / "zero.bmp").c_str(), data.data(), 0, 8, 24));
    EXPECT_FALSE(FileExists(dir / "zero.bmp"));
    EXPECT_FALSE(SaveBmpFile((dir / "32.bmp").c_str(), data.data(), 8, 8, 32));
    EXPECT_EQ(FileSize(dir / "32.bmp"), 54 + 256) << "32-bit rows need no padding";
}

class SnapshotWriterJpeg : public ::testing::Test {
protected:
    static constexpr int kW = 640, kH = 480;
    std::vector<unsigned char> topDownBgr_ = RawTestFrame("testsrc", kW, kH, "bgr24", 3);
    std::vector<unsigned char> bottomUpBgr_ = FlipRows(topDownBgr_.data(), kW * 3, kH);
    std::vector<unsigned char> yuv_ = RawTestFrame("testsrc", kW, kH, "yuv420p", 3);
    TempDir dir_;
};

TEST_F(SnapshotWriterJpeg, BottomUpBgrComesOutUprightAtFullQuality) {
    const std::string path = dir_ / "snap.jpg";
    std::vector<unsigned char> buffer = bottomUpBgr_;
    EXPECT_EQ(SaveJpegFile(path.c_str(), buffer.data(), kW, kH, 3), 0);
    EXPECT_EQ(buffer, SwapRedBlue(bottomUpBgr_)) << "the caller's buffer now holds red-green-blue";
    const DecodedJpeg d = DecodeJpeg(ReadFileBytes(path), JCS_RGB);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.warnings, 0);
    ASSERT_EQ(d.width * d.height, kW * kH);
    const std::vector<unsigned char> uprightRgb = SwapRedBlue(topDownBgr_);
    const std::vector<unsigned char> flippedRgb = FlipRows(uprightRgb.data(), kW * 3, kH);
    const double upright = Psnr(uprightRgb.data(), d.pixels.data(), uprightRgb.size());
    EXPECT_GT(upright, 25.0);  // chroma is subsampled 2x2 by libjpeg
    EXPECT_GT(upright, Psnr(flippedRgb.data(), d.pixels.data(), flippedRgb.size()) + 10);
    EXPECT_GT(upright, Psnr(topDownBgr_.data(), d.pixels.data(), topDownBgr_.size()) + 10);
    EXPECT_EQ(Ffprobe("-show_entries stream=codec_name,width,height -of csv=p=0", path), "mjpeg,640,480\n");
    // Quality 100: every quantiser of both DQT tables is 1.
    const std::vector<unsigned char> f = ReadFileBytes(path);
    int tables = 0;
    for (size_t at = 2; at + 4 <= f.size() && f[at] == 0xFF && f[at + 1] != 0xDA; at += 2 + (f[at + 2] << 8 | f[at + 3])) {
        if (f[at + 1] != 0xDB) continue;
        for (size_t t = at + 4; t + 65 <= at + 2 + (f[at + 2] << 8 | f[at + 3]); t += 65, ++tables) {
            EXPECT_EQ(f[t] >> 4, 0) << "8-bit precision";
            EXPECT_EQ(std::vector<unsigned char>(f.begin() + t + 1, f.begin() + t + 65), std::vector<unsigned char>(64, 1));
        }
    }
    EXPECT_EQ(tables, 2);
}

TEST_F(SnapshotWriterJpeg, YuvSnapshotKeepsFullChroma) {
    const std::string path = dir_ / "yuv.jpg";
    EXPECT_EQ(SaveYuvJpegFile(path.c_str(), yuv_.data(), kW, kH), 0);
    EXPECT_EQ(Ffprobe("-show_entries stream=codec_name,width,height,pix_fmt -of csv=p=0", path),
              "mjpeg,640,480,yuvj444p\n");
    const DecodedJpeg d = DecodeJpeg(ReadFileBytes(path), JCS_YCbCr);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.warnings, 0);
    const std::vector<unsigned char> expected = I420ToYuv444(yuv_.data(), kW, kH);
    EXPECT_GE(Psnr(expected.data(), d.pixels.data(), expected.size()), 45.0);
}

TEST_F(SnapshotWriterJpeg, FailuresAreReportedAndLeaveNoFile) {
    std::vector<unsigned char> buffer = bottomUpBgr_;
    const std::string missing = dir_ / "missing/snap.jpg", x = dir_ / "x.jpg";
    testing::internal::CaptureStderr();
    EXPECT_EQ(SaveJpegFile(missing.c_str(), buffer.data(), kW, kH, 3), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "can't open " + missing + "\n");
    EXPECT_EQ(SaveJpegFile(x.c_str(), buffer.data(), kW, kH, 4), -1);
    EXPECT_EQ(SaveJpegFile(x.c_str(), buffer.data(), 0, kH, 3), -1);
    EXPECT_EQ(SaveJpegFile(x.c_str(), nullptr, kW, kH, 3), -1);
    EXPECT_FALSE(FileExists(x));

    testing::internal::CaptureStderr();
    EXPECT_EQ(SaveYuvJpegFile(missing.c_str(), yuv_.data(), kW, kH), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("PRINT "), std::string::npos) << log;
    EXPECT_NE(log.find("can't open " + missing + "\n"), std::string::npos) << log;
    // A picture too small for its own headers within width * height * 3.
    std::vector<unsigned char> small(8 * 8 * 3 / 2, 128);
    testing::internal::CaptureStderr();
    EXPECT_EQ(SaveYuvJpegFile(x.c_str(), small.data(), 8, 8), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(FileExists(x));
}

}  // namespace
