// The I-file as line-oriented text, and back.
//
//   .header version=-71 cpu=0x258 source="a.c" extra=0
//   .section main                  (then init, options, types, files, globals)
//   stmt P:1:10:3                  one record a line: its name, then its fields
//   node b:58 n:3                  # ASG   (text after '#' is a comment)
//   .end                           the end record (255) of the section
//
// Every field carries its encoding: b u8, c s8, h u16, w s16, n uint,
// s sint, i a 32-bit sint (ICON), S string, L counted string, P psn
// ("P:0" when absent, else P:file:line:column), R symbol reference
// (R:scope:index), x raw bytes in hexadecimal.  ifas encodes exactly what the
// fields say, so ifas(ifdis(f)) is f for every file the optimizer writes.
#pragma once

#include <cstdio>
#include <string>

// Both return 0 on success; on failure `error` says what and where.
int ifdis(FILE* in, FILE* out, std::string& error);
int ifas(FILE* in, FILE* out, std::string& error);
// A string field's text: in double quotes, with " and \ escaped and other
// bytes outside printable ASCII as \xNN.
std::string if_text_quote(const std::string& s);
