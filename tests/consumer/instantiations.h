// The instantiations the library provides of the templates its public headers declare without a
// definition. A host can use these and no others; public_names.py fails when a header declares
// such a template and this list has no instantiation of it.
#pragma once

#include "llib/gen/charsets.h"
#include "llib/gen/file.h"
#include "llib/gen/stringtools.h"

extern template unsigned long tplprintf(LFixedLengthStringWriterTemplate<char>&, const char*,
                                        va_list);
extern template unsigned long tplprintf(LStringLongTemplateWriter<char>&, const char*, va_list);
extern template unsigned long tplprintf(LStringLongTemplateAppender<char>&, const char*, va_list);
extern template unsigned long LParseGetToCharacters(const char*, const char*, char*);
extern template char* LStringReplaceChar(char*, char, char);
extern template class LStringParserTemplate<char>;
extern template void LCopyIconvFixedLength(char*, const char*, unsigned long, const char*,
                                           const char*);
extern template void LCopyIconvFixedLength(char*, const char*, const char*, const char*);
extern template bool LFile::IsMatch(const char*, const char*);
extern template bool LFile::IsMatch(const wchar_t*, const wchar_t*);
