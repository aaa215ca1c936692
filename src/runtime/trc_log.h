// Debug log: every line goes to stderr and is appended to "trc_new.log" in
// the folder of the running executable, or in the folder CAMCTL_LOG_DIR
// names. Each logging unit rotates the previous file to "trc_old.log" at its
// first line. When the file cannot be written, the first lost line says so
// once on stderr.
#pragma once

#include <atomic>

// One logging unit: a static path buffer, empty until the unit first logs.
// `ready` turns true once the path is filled (and the rotation done), so
// threads that log concurrently never read a half-written path.
struct trc_unit {
    char path[256] = {};
    std::atomic<bool> ready{false};
};

int trc_log_unit(trc_unit* unit, const char* source_path, int line, const char* tag,
                 const char* fmt, ...) __attribute__((format(printf, 5, 6)));
int trc_rotate(char* path_out);
int trc_append(const char* path, const char* text);
// Folder the log files live in (CAMCTL_LOG_DIR as read at the first call, or
// the executable's folder), no trailing '/'.
const char* trc_log_dir();

// Each source file that logs defines its own unit with TRC_DEFINE_UNIT()
// and calls trc_log(__FILE__, __LINE__, "", fmt, ...).
#define TRC_DEFINE_UNIT() static trc_unit s_trc_unit
#define trc_log(src, line, tag, ...) trc_log_unit(&s_trc_unit, (src), (line), (tag), __VA_ARGS__)
