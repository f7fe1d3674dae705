// Files, digests, URLs and firmware versions.
#pragma once

#include <cstddef>
#include <string>

/// Creates the file if it is missing; an existing one is left as it is. 0, or negative when it cannot be written.
int ve_fs_touch(const char *path);

/// Maps a regular file for reading. An empty file gives a non-null `*data` and size 0. Returns 0 or negative. Reading a
/// mapping whose file shrank is survived only through ve_socket_send, which then ends with an error.
int ve_fs_mmap_file(const char *path, void **data, size_t *size);
void ve_fs_munmap_file(void *data, size_t size);

/// MD5 of a regular file, read in blocks, into 16 bytes. Returns 0 or negative. A wait point: a large file takes long.
/// Main thread only.
int ve_md5_calculate_from_file(const char *path, unsigned char digest[16]);
/// 32 hex digits, lower case.
std::string ve_md5_to_str(const unsigned char digest[16]);

/// 0 when `text` is a URL: a scheme (a letter, then letters, digits, "+", "-", "."), "://" and something behind it.
int ve_url_parse(const char *text);

/// Compares "[PRODUCT-]MAJOR.MINOR.BUILD" versions (further parts count as build): 0 equal; 1, 2, 3 when `next` is
/// higher in its build, minor, major part, negative when lower; INT_MAX or INT_MIN + 1 when the products differ
/// (positive when `next` is higher); ve_firmware_version_unreadable when one cannot be read.
int ve_firmware_version_cmp(const char *current, const char *next);
inline constexpr int ve_firmware_version_unreadable = 100;
