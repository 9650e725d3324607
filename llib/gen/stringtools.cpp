#include "llib/gen/stringtools.h"

#include <cstdio>
#include <cstring>

// What the engine does with each conversion it meets after a '%' and an optional run of digits
// and points (kept, at most 257 of them, in a directive such as "%05.2"):
//   s                 puts the text, character by character; null or empty puts nothing; the
//                     digits are ignored (no width, no precision).
//   %                 puts one '%'.
//   e f g             formats a double with the C library.
//   d i u x X o c     formats an int with the C library; a %c of 0 puts only the padding
//                     its width asks for.
//   p                 formats a pointer with the C library (pointers are 64-bit here, so the
//                     argument is taken as a pointer, not as a 32-bit int).
// Outside that syntax, formats are meant not to go; the engine still gives each a defined
// result, reading exactly the arguments the C library would, so later conversions stay right:
//   - flags '-', '+', ' ', '#' and a '*' width or precision (its int argument is read) are
//     kept in the directive and passed to the C library;
//   - length modifiers h, hh, l, ll, L, q, j, z, t read an argument of that width;
//   - E, F, G, a, A format a double;
//   - n reads its pointer argument and stores nothing;
//   - any other conversion character reads an int, so the arguments after it stay in step, and
//     puts the directive as written ("%y" puts "%y").
// A format that ends inside a directive ("abc%", "%12", "%l") stops there and puts nothing for
// the unfinished directive. One numeric conversion never puts more than 259 characters:
// the C library formats it bounded into the 260-character temporary, so a width or precision
// such as %500d or %.400f is cut at 259 characters, and one the C library refuses puts nothing.

namespace {

constexpr size_t kTemporarySize = 260;
constexpr size_t kMaxDirectiveDigits = 257;

enum class Length { None, Char, Short, Long, LongLong, LongDouble, IntMax, Size, PtrDiff };

bool IsFlag(char c) {
    return c == '-' || c == '+' || c == ' ' || c == '#';
}

// Reads the length modifier at format, if any, and returns the characters it took.
int ReadLength(const char* format, Length& length) {
    switch (format[0]) {
    case 'h':
        length = format[1] == 'h' ? Length::Char : Length::Short;
        return format[1] == 'h' ? 2 : 1;
    case 'l':
        length = format[1] == 'l' ? Length::LongLong : Length::Long;
        return format[1] == 'l' ? 2 : 1;
    case 'q':
        length = Length::LongLong;
        return 1;
    case 'L':
        length = Length::LongDouble;
        return 1;
    case 'j':
        length = Length::IntMax;
        return 1;
    case 'z':
        length = Length::Size;
        return 1;
    case 't':
        length = Length::PtrDiff;
        return 1;
    default:
        length = Length::None;
        return 0;
    }
}

template <class Writer>
void PutText(Writer& writer, const char* text, int count) {
    if (count <= 0)
        return;
    if (static_cast<size_t>(count) >= kTemporarySize)
        count = kTemporarySize - 1;
    writer.PutRun(text, static_cast<size_t>(count));
}

// A %c of 0 puts nothing of its own, so the written text never holds a 0 and its count is
// what a reader of the text sees; the padding of a width ("%3c" gives two blanks) stays.
int DropZeroCharacters(char* text, int count) {
    if (count <= 0)
        return count;
    const int stored =
        count < static_cast<int>(kTemporarySize) ? count : static_cast<int>(kTemporarySize) - 1;
    int kept = 0;
    for (int i = 0; i < stored; ++i)
        if (text[i] != 0)
            text[kept++] = text[i];
    return kept;
}

} // namespace

template <class Writer, class T>
unsigned long tplprintf(Writer& writer, const T* format, va_list arguments) {
    if (format == nullptr)
        return 0;
    va_list args;
    va_copy(args, arguments);
    const T* p = format;
    for (;;) {
        // Literal text goes through in runs.
        const T* run = p;
        while (*p != 0 && *p != '%')
            ++p;
        if (p > run)
            writer.PutRun(run, static_cast<size_t>(p - run));
        if (*p == 0)
            break;
        ++p; // past '%'

        // The directive: '%', then flags, digits and points, '*' values, as written.
        char directive[kTemporarySize + 32];
        size_t used = 0;
        directive[used++] = '%';
        size_t digits = 0;
        while (*p != 0 && ((*p >= '0' && *p <= '9') || *p == '.' || IsFlag(static_cast<char>(*p)) ||
                           *p == '*')) {
            if (*p == '*') {
                // The value is written into the directive, bounded like the digits.
                const int value = va_arg(args, int);
                char number[16];
                const int n = snprintf(number, sizeof number, "%d", value);
                for (int i = 0; i < n && digits < kMaxDirectiveDigits; ++i, ++digits)
                    directive[used++] = number[i];
            } else if (digits < kMaxDirectiveDigits) {
                directive[used++] = static_cast<char>(*p);
                ++digits;
            }
            ++p;
        }
        Length length;
        const int lengthCharacters = ReadLength(reinterpret_cast<const char*>(p), length);
        for (int i = 0; i < lengthCharacters; ++i)
            directive[used++] = static_cast<char>(*p++);
        const T conversion = *p;
        if (conversion == 0)
            break; // the format ended inside the directive
        ++p;

        char temporary[kTemporarySize];
        int produced = 0;
        switch (conversion) {
        case 's': {
            const char* text = va_arg(args, const char*);
            if (text != nullptr && *text != 0)
                writer.PutRun(reinterpret_cast<const T*>(text), strlen(text));
            continue;
        }
        case '%':
            writer.Put('%');
            continue;
        case 'n':
            (void)va_arg(args, void*);
            continue;
        default:
            break;
        }
        directive[used++] = static_cast<char>(conversion);
        directive[used] = 0;
        switch (conversion) {
        case 'e':
        case 'f':
        case 'g':
        case 'E':
        case 'F':
        case 'G':
        case 'a':
        case 'A':
            if (length == Length::LongDouble)
                produced =
                    snprintf(temporary, sizeof temporary, directive, va_arg(args, long double));
            else
                produced = snprintf(temporary, sizeof temporary, directive, va_arg(args, double));
            break;
        case 'p':
            produced = snprintf(temporary, sizeof temporary, directive, va_arg(args, void*));
            break;
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
        case 'c':
            switch (length) {
            case Length::Long:
                produced = snprintf(temporary, sizeof temporary, directive, va_arg(args, long));
                break;
            case Length::LongLong:
            case Length::IntMax:
            case Length::Size:
            case Length::PtrDiff:
                // All 64-bit here; read as long long and print with the same modifier.
                produced =
                    snprintf(temporary, sizeof temporary, directive, va_arg(args, long long));
                break;
            default:
                // int, and the promoted short and char.
                produced = snprintf(temporary, sizeof temporary, directive, va_arg(args, int));
                break;
            }
            if (conversion == 'c')
                produced = DropZeroCharacters(temporary, produced);
            break;
        default:
            // Unknown conversion: read its int argument, put the directive as written.
            (void)va_arg(args, int);
            produced = static_cast<int>(used);
            memcpy(temporary, directive, used < kTemporarySize ? used : kTemporarySize - 1);
            break;
        }
        PutText(writer, temporary, produced);
    }
    va_end(args);
    return writer.GetCount();
}

template unsigned long
tplprintf<LFixedLengthStringWriterTemplate<char>, char>(LFixedLengthStringWriterTemplate<char>&,
                                                        const char*, va_list);
template unsigned long
tplprintf<LStringLongTemplateWriter<char>, char>(LStringLongTemplateWriter<char>&, const char*,
                                                 va_list);
template unsigned long
tplprintf<LStringLongTemplateAppender<char>, char>(LStringLongTemplateAppender<char>&, const char*,
                                                   va_list);

unsigned long tplsnprintf(char* buffer, unsigned long size, const char* format, ...) {
    if (buffer == nullptr || size < 1)
        return 0;
    LFixedLengthStringWriterTemplate<char> writer(
        buffer, size > 0xFFFFFFFFul ? 0xFFFFFFFFu : static_cast<unsigned int>(size));
    va_list arguments;
    va_start(arguments, format);
    tplprintf(writer, format, arguments);
    va_end(arguments);
    writer.Terminate();
    return writer.nPos;
}

unsigned long sprintf(LFixedLengthStringWriterTemplate<char>& writer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const unsigned long count = tplprintf(writer, format, arguments);
    va_end(arguments);
    return count;
}

namespace {
// Writes the terminator when the formatting ends, also when an exception passes through.
template <class Writer>
struct TerminateOnExit {
    Writer& writer;
    ~TerminateOnExit() { writer.Terminate(); }
};
} // namespace

unsigned long sprintf(LStringLongTemplate<char>& string, const char* format, ...) {
    string.GrowToSize(260);
    string.SetLength(0);
    LStringLongTemplateWriter<char> writer(string);
    TerminateOnExit<LStringLongTemplateWriter<char>> terminate{writer};
    va_list arguments;
    va_start(arguments, format);
    tplprintf(writer, format, arguments);
    va_end(arguments);
    return string.nLength;
}

unsigned long tsprintfappend(LStringLongTemplate<char>& string, const char* format, ...) {
    LStringLongTemplateAppender<char> writer(string);
    TerminateOnExit<LStringLongTemplateAppender<char>> terminate{writer};
    va_list arguments;
    va_start(arguments, format);
    tplprintf(writer, format, arguments);
    va_end(arguments);
    return string.nLength;
}

int tprintf(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = vprintf(format, arguments);
    va_end(arguments);
    return result;
}

template <class T>
unsigned long LParseGetToCharacters(const T* text, const T* delimiters, T* destination) {
    unsigned long scanned = 0;
    unsigned long stored = 0;
    for (; text[scanned] != 0; ++scanned) {
        bool isDelimiter = false;
        for (const T* d = delimiters; d != nullptr && *d != 0; ++d)
            if (*d == text[scanned]) {
                isDelimiter = true;
                break;
            }
        if (isDelimiter)
            break;
        if (stored < 259)
            destination[stored++] = text[scanned];
    }
    destination[stored] = 0;
    return scanned;
}

template <class T>
T* LStringReplaceChar(T* text, T from, T to) {
    if (text == nullptr || from == to || from == 0)
        return text;
    for (T* p = text; *p != 0; ++p)
        if (*p == from)
            *p = to;
    return text;
}

template <class T>
void LStringParserTemplate<T>::SkipToCharacterAndSkip(const T* delimiters) {
    for (; *pCursor != 0; ++pCursor)
        for (const T* d = delimiters; d != nullptr && *d != 0; ++d)
            if (*d == *pCursor) {
                ++pCursor;
                return;
            }
}

template <class T>
void LStringParserTemplate<T>::GetToCharacterAndSkip(const T* delimiters, T* destination) {
    pCursor += LParseGetToCharacters(pCursor, delimiters, destination);
    if (*pCursor != 0)
        ++pCursor;
}

template unsigned long LParseGetToCharacters<char>(const char*, const char*, char*);
template char* LStringReplaceChar<char>(char*, char, char);
template class LStringParserTemplate<char>;
