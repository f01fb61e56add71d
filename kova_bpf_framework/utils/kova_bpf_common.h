// Small helpers that every part of the service uses: formatting, splitting and checking strings, a hex
// dump for diagnostics, reading a symbolic link and an absolute difference. None of them logs; all are
// safe to call from any thread.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace Kova::Bpf {

// True when `s` is non-empty and every byte is an ASCII digit.
bool IsDigits(const std::string& s);

// Each byte as two lower-case hex digits followed by one blank ("0a ff "); empty for length < 1.
std::string ConvertToHexString(const void* data, int length);

// printf into a string of any length; empty when formatting fails or yields nothing.
std::string StringPrintf(const char* format, ...) __attribute__((__format__(printf, 1, 2)));
// printf appended to *out; nothing is appended when formatting fails or yields nothing.
void StringAppendF(std::string* out, const char* format, ...) __attribute__((__format__(printf, 2, 3)));

// Splits at every occurrence of the whole (non-empty) `delimiter`, dropping empty tokens: ",a,,b," at
// "," gives "a" and "b".
std::vector<std::string> Split(const std::string& s, const std::string& delimiter);

// |a - b| with the difference taken in 64-bit two's complement: b - a when a - b is negative as a
// signed number, else a - b. Exact whenever the true difference fits in 63 bits.
uint64_t SubAbs(int64_t a, int64_t b);

// Creates `path` and any missing parents with `mode`; an existing directory is no error. False with
// errno otherwise.
bool MakeDirectories(const std::string& path, mode_t mode);

// The target of the symbolic link `path` (at most 4095 bytes), or "" when it cannot be read.
std::string ReadSymlink(const char* path);

}  // namespace Kova::Bpf
