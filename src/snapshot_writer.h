// Snapshot writers: one decoded picture to an image file, and the folder
// helpers that prepare where they go.
//
// Picture forms:
//  - 24-bit: width x height pixels of blue-green-red bytes, rows bottom-up,
//    width * 3 bytes per row;
//  - planar YUV 4:2:0: the Y plane (width * height bytes), then U at offset
//    width * height and V at width * height * 5 / 4.
#pragma once

// True when path names an existing folder.
bool IsDirectory(const char* path);

// Creates every missing folder along path ('/' separated; the last
// component is a folder too). Paths longer than 255 characters are cut.
// An absolute path starts at the root, which is never created. Always
// returns true.
bool MakeDirectories(const char* path);

// Writes a BMP file: the 14-byte file header, the 40-byte information
// header and ((width * bitsPerPixel / 8 + 3) / 4) * 4 * height bytes of data,
// which must already be in BMP order (rows bottom-up, each padded to a
// multiple of 4 bytes). Returns false in every case, also after a successful
// write, so callers cannot tell the two apart by it.
bool SaveBmpFile(const char* path, const unsigned char* data, int width, int height, int bitsPerPixel);

// Writes a 24-bit picture whose rows are width * 3 bytes with no padding
// (rows bottom-up) as a BMP file, padding each row to a multiple of 4 bytes
// on the way out. Returns true when the whole file was written.
bool SaveBmpFileUnpadded(const char* path, const unsigned char* data, int width, int height);

// Writes a 24-bit picture as a quality-100 JPEG through libjpeg, upright.
// Swaps the first and third byte of every pixel of data in place (the
// caller's buffer ends up red-green-blue). Only bytesPerPixel 3 is
// supported. Returns 0, or -1 when the file cannot be created ("can't open
// <path>" on stderr) or the arguments or the encoder fail.
int SaveJpegFile(const char* path, unsigned char* data, int width, int height, int bytesPerPixel);

// Writes a planar YUV 4:2:0 picture as a quality-100 JPEG through the
// library's own encoder. Returns 0, or -1 when the file cannot be created
// (os_print of "can't open <path>") or the picture cannot be encoded within
// width * height * 3 bytes (the file is removed then).
int SaveYuvJpegFile(const char* path, const unsigned char* yuv, int width, int height);
