#include "support/tempfolder.h"
#include "llib/unix/filehandle.h"
#include "support/elapsed.h"
#include "support/process.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// A fresh folder under /tmp for each test, removed afterwards.
class Files : public ::testing::Test {
protected:
    std::string Path(const char* name) const { return temp / name; }
    TempFolder temp{"tavix-files"};
};

// A lock held through a descriptor of its own: flock locks belong to the open file, so it
// conflicts with the handles' locks exactly as another process's would.
class LockHolder {
public:
    LockHolder(const std::string& path, int operation)
        : fd(open(path.c_str(), O_RDWR | O_CREAT, 0666)),
          held(fd >= 0 && flock(fd, operation | LOCK_NB) == 0) {}
    ~LockHolder() { Release(); }
    // Closes the descriptor, which drops the lock.
    void Release() {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
    int fd;
    bool held;
};

// Asks to stop after a number of IsToStop calls and records the progress reports.
class CountingProcess : public LProcessInterfaceVoid {
public:
    explicit CountingProcess(int stopAfter) : stopAfter(stopAfter) {}
    bool IsToStop() override { return calls++ >= stopAfter; }
    void SetProgress(double value) override { progress.push_back(value); }
    int stopAfter;
    int calls = 0;
    std::vector<double> progress;
};

std::vector<std::string> BufferedLines(const std::string& path, unsigned int size = 20000) {
    std::vector<std::string> lines;
    LReadFileBuffered reader(path.c_str());
    std::vector<char> text(size + 1, 'x');
    while (reader.ReadLine(text.data(), size))
        lines.push_back(text.data());
    return lines;
}

std::vector<std::string> UnbufferedLines(const std::string& path) {
    std::vector<std::string> lines;
    LReadFile reader(path.c_str());
    char text[64];
    while (reader.ReadLine(text, sizeof text))
        lines.push_back(text);
    return lines;
}

// Lines as the buffered reader defines them: LF, CR or CR LF end a line.
std::vector<std::string> ReferenceLines(const std::string& bytes) {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t i = 0; i < bytes.size(); ++i)
        if (bytes[i] == '\n' || bytes[i] == '\r') {
            lines.push_back(bytes.substr(begin, i - begin));
            if (bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n')
                ++i;
            begin = i + 1;
        }
    if (begin < bytes.size())
        lines.push_back(bytes.substr(begin));
    return lines;
}

} // namespace

TEST_F(Files, SharedReadersExcludeWritersAcrossProcesses) {
    const std::string path = Path("shared.txt");
    WriteFile(path, "contents");
    {
        LockHolder reader(path, LOCK_SH);
        ASSERT_TRUE(reader.held);
        LReadFile second(path.c_str());
        EXPECT_TRUE(second.IsValid()) << "readers share";
        LWriteFile writer(path.c_str());
        EXPECT_FALSE(writer.IsValid());
        EXPECT_TRUE(LFile::IsErrorSharingViolation());
        EXPECT_EQ("contents", ReadFile(path)) << "a refused writer leaves the file alone";
        EXPECT_TRUE(LFile::TestFileShareWriteBlocked(path.c_str()));
        EXPECT_EQ(0, ForkAndWait([&] { _exit(LWriteFile(path.c_str()).IsValid() ? 1 : 0); }))
            << "nor can another process write";
    }
    {
        LockHolder writer(path, LOCK_EX);
        ASSERT_TRUE(writer.held);
        LReadFile reader(path.c_str());
        EXPECT_FALSE(reader.IsValid());
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_TRUE(LFile::TestFileShareReadBlocked(path.c_str()));
    }
    EXPECT_FALSE(LFile::TestFileShareReadBlocked(path.c_str()));
    EXPECT_FALSE(LFile::TestFileShareWriteBlocked(Path("missing").c_str()));
    LWriteFile writer(path.c_str());
    ASSERT_TRUE(writer.IsValid());
    EXPECT_EQ("", ReadFile(path)) << "a writer starts empty";
    // Within one process each open takes its own lock too.
    LReadFile reader(path.c_str());
    EXPECT_FALSE(reader.IsValid());
}

TEST_F(Files, TimedLockWaitsAboutItsTimeOutAndOpensWithoutTheLockAfterward) {
    const std::string path = Path("timed.txt");
    WriteFile(path, "old contents");
    LockHolder holder(path, LOCK_EX);
    ASSERT_TRUE(holder.held);
    const int fd = open(path.c_str(), O_RDONLY);
    auto begin = Clock::now();
    EXPECT_NE(0, flocktimed(fd, LOCK_SH, 320));
    EXPECT_GE(MillisecondsSince(begin), 300) << "waited out the time-out";
    EXPECT_EQ(EWOULDBLOCK, errno);
    close(fd);

    begin = Clock::now();
    const int written = LFile::_OpenWrite(path.c_str(), 100);
    EXPECT_GE(MillisecondsSince(begin), 90);
    EXPECT_GE(written, 0) << "opened although the lock was not obtained";
    EXPECT_EQ("", ReadFile(path));
    close(written);

    // A lock released during the waits is taken.
    std::atomic<bool> released{false};
    const int waiting = open(path.c_str(), O_RDONLY);
    std::thread release([&, waiter = CurrentThreadId()] {
        WaitUntilAsleep(waiter);
        released = true;
        holder.Release();
    });
    EXPECT_EQ(0, flocktimed(waiting, LOCK_EX, 20000));
    EXPECT_TRUE(released.load());
    release.join();
    close(waiting);
    EXPECT_NE(0, flocktimed(-1, LOCK_EX, 1000)) << "other failures stop at once";
    EXPECT_EQ(EBADF, errno);
}

TEST_F(Files, OpeningNewAppendingTimesAndTheErrorTests) {
    const std::string path = Path("new.bin");
    LWriteFile file;
    EXPECT_TRUE(file.OpenNew(path.c_str()));
    EXPECT_TRUE(file.WriteString("first"));
    EXPECT_FALSE(file.OpenNew(path.c_str()));
    EXPECT_TRUE(LFile::IsErrorAlreadyExists());
    EXPECT_TRUE(file.OpenAppendAlways(path.c_str(), 1000));
    EXPECT_TRUE(file.WriteString(" second"));
    using Stat = struct stat;
    Stat before{}, after{};
    stat(path.c_str(), &before);
    EXPECT_TRUE(file.SetFileModifiedTime(1000000000));
    stat(path.c_str(), &after);
    EXPECT_EQ(1000000000, after.st_mtime);
    EXPECT_EQ(before.st_atim.tv_nsec, after.st_atim.tv_nsec) << "the access time is kept";
    file.Close();
    EXPECT_EQ("first second", ReadFile(path));

    LReadFile missing(Path("missing").c_str());
    EXPECT_FALSE(missing.IsValid());
    EXPECT_TRUE(LFile::IsErrorFileNotFound());
    EXPECT_EQ(-1, LFile::_OpenRead(Path("missing").c_str(), 10));
    chmod(path.c_str(), 0);
    if (geteuid() != 0) {
        LReadFile denied(path.c_str(), 10);
        EXPECT_FALSE(denied.IsValid());
        EXPECT_TRUE(LFile::IsErrorPermissionDenied());
        EXPECT_TRUE(LFile::IsErrorSharingViolation());
    }
}

TEST_F(Files, RecordsLinesAndFormattedWriting) {
    const std::string path = Path("settings.bin");
    const std::string s254(254, 'a'), s255(255, 'b'), s600(600, 'c');
    {
        LWriteFile file(path.c_str());
        EXPECT_TRUE(file.WriteIntLE<unsigned char>(0xAB));
        EXPECT_TRUE(file.WriteIntLE<unsigned int>(0x12345678));
        EXPECT_TRUE(file.WriteStringLenUTF8(s254.c_str()));
        EXPECT_TRUE(file.WriteStringLenUTF8(s255.c_str()));
        EXPECT_TRUE(file.WriteStringLenUTF8(s600.c_str()));
        EXPECT_TRUE(file.WriteStringLenUTF8(""));
    }
    const std::string bytes = ReadFile(path);
    EXPECT_EQ(std::string("\xAB\x78\x56\x34\x12", 5), bytes.substr(0, 5));
    EXPECT_EQ('\xFE', bytes[5]) << "254 bytes: a one-byte prefix";
    EXPECT_EQ(std::string("\xFF\xFF\x00\x00\x00", 5), bytes.substr(5 + 1 + 254, 5))
        << "255 bytes: 0xFF and the length in four bytes";

    LReadFile file(path.c_str());
    EXPECT_EQ(0xAB, file.ReadIntLE<unsigned char>());
    EXPECT_EQ(0x12345678u, file.ReadIntLE<unsigned int>());
    char text[520];
    auto Next = [&] { return file.ReadStringLenUTF8(text) ? std::string(text) : "(none)"; };
    EXPECT_EQ(s254, Next());
    EXPECT_EQ(s255, Next());
    EXPECT_EQ(std::string(519, 'c'), Next()) << "the first 519 bytes, the position after all";
    EXPECT_EQ("", Next());
    // Past the end: nothing, and zeros.
    EXPECT_EQ("(none)", Next());
    EXPECT_EQ(0u, file.ReadIntLE<unsigned int>());
    EXPECT_EQ(0u, file.ReadStringUTF8(text, 10));
    EXPECT_STREQ("", text);

    // A record cut short by the end of the file.
    WriteFile(path, std::string("\x06"
                                "abc\x78\x56",
                                6));
    LReadFile cut(path.c_str());
    EXPECT_FALSE(cut.ReadStringLenUTF8(text));
    EXPECT_EQ(std::string("abc\x78\x56"), text);
    LReadFile partial(path.c_str());
    EXPECT_EQ(0x06u, partial.ReadIntLE<unsigned char>());
    EXPECT_EQ(3u, partial.ReadStringUTF8(text, 3));
    EXPECT_STREQ("abc", text);
    EXPECT_EQ(0x5678u, partial.ReadIntLE<unsigned int>()) << "bytes not read count as 0";

    // Line writers and formatted writing.
    const std::string written = Path("written.txt");
    {
        LWriteFile file(written.c_str());
        EXPECT_EQ(2u, file.WriteLineCRLF("crlf"));
        EXPECT_EQ(1u, file.WriteLineLF("lf"));
        EXPECT_TRUE(file.WriteStringUTF8("\xC3\xA9"));
        EXPECT_EQ(1007u, fprintf(file, " %d %s|%x", 42, std::string(1000, 'z').c_str(), 255));
    }
    EXPECT_EQ("crlf\r\nlf\n\xC3\xA9 42 " + std::string(1000, 'z') + "|ff", ReadFile(written));
}

TEST_F(Files, LineEndsForBothReaders) {
    using Lines = std::vector<std::string>;
    const struct {
        bool buffered;
        std::string bytes;
        Lines lines;
    } cases[] = {
        // The unbuffered reader takes any pair of different line ends as one.
        {false, "a\n\rb", {"a", "b"}},
        {false, "a\r\rb", {"a", "", "b"}},
        {false, "one\r\ntwo\n\nthree", {"one", "two", "", "three"}},
        {false, "", {}},
        {false, std::string(100, 'L') + "\nnext\n", {std::string(63, 'L'), "next"}},
        // The buffered reader's line ends are held against ReferenceLines below.
        {true, "", {}},
        {true, "\n", {""}},
    };
    const std::string path = Path("lines.txt");
    for (const auto& c : cases) {
        WriteFile(path, c.bytes);
        EXPECT_EQ(c.lines, c.buffered ? BufferedLines(path) : UnbufferedLines(path))
            << (c.buffered ? "buffered: " : "unbuffered: ") << c.bytes.substr(0, 20);
    }
    WriteFile(path, "long line here\nx");
    EXPECT_EQ((Lines{"long", "x"}), BufferedLines(path, 5)) << "cut to the size, rest skipped";
    LReadFileBuffered reader(path.c_str());
    char untouched = 'u';
    EXPECT_TRUE(reader.ReadLine(&untouched, 0));
    EXPECT_EQ('u', untouched);

    // A growable line takes any length.
    WriteFile(path, std::string(10000, 'w') + "\r\nshort");
    LReadFile file(path.c_str());
    LStringLongTemplate<char> line;
    EXPECT_TRUE(file.ReadLine(line));
    EXPECT_EQ(std::string(10000, 'w'), line.pData);
    EXPECT_TRUE(file.ReadLine(line));
    EXPECT_STREQ("short", line.pData);
    EXPECT_FALSE(file.ReadLine(line));
    EXPECT_EQ(0u, line.nLength);
}

TEST_F(Files, BufferedLinesAcrossTheBufferBoundary) {
    const std::string path = Path("boundary.txt");
    // A CR as the buffer's last byte with its LF opening the next block; a line end exactly
    // at the boundary; a line longer than the buffer.
    for (size_t crAt : {8190u, 8191u, 8192u}) {
        std::string bytes(crAt, 'x');
        bytes += "\r\nnext\n";
        WriteFile(path, bytes);
        EXPECT_EQ((std::vector<std::string>{std::string(crAt, 'x'), "next"}), BufferedLines(path))
            << crAt;
    }
    std::mt19937 random(99);
    for (int round = 0; round < 40; ++round) {
        std::string bytes;
        const size_t length = 8192 * 3 + random() % 8192;
        while (bytes.size() < length) {
            const unsigned int kind = random() % 12;
            if (kind < 3)
                bytes += kind == 0 ? "\r" : kind == 1 ? "\n" : "\r\n";
            else if (kind == 3)
                bytes.append(random() % 9000, 'L');
            else
                bytes.append(random() % 80, static_cast<char>('a' + random() % 26));
        }
        WriteFile(path, bytes);
        ASSERT_TRUE(ReferenceLines(bytes) ==
                    BufferedLines(path, static_cast<unsigned int>(bytes.size() + 1)))
            << "round " << round;
    }
}

TEST_F(Files, BufferedReadsPeeksAndSeeks) {
    const std::string path = Path("data.bin");
    std::string bytes;
    for (int i = 0; i < 30000; ++i)
        bytes += static_cast<char>(i * 7 + i / 256);
    WriteFile(path, bytes);
    LReadFileBuffered reader(path.c_str());
    EXPECT_EQ(30000u, reader.GetFileSizeBytes64());
    std::vector<char> out(20000);
    EXPECT_EQ(10u, reader.Read(out.data(), 10));
    EXPECT_EQ(10, reader.Tell64());
    // Peek delivers what Read will deliver, without moving.
    std::vector<char> peeked(9000);
    EXPECT_EQ(9000u, reader.Peek(peeked.data(), 9000));
    EXPECT_EQ(10, reader.Tell64());
    EXPECT_EQ(9000u, reader.Read(out.data(), 9000));
    EXPECT_EQ(bytes.substr(10, 9000), std::string(out.data(), 9000));
    EXPECT_EQ(bytes.substr(10, 9000), std::string(peeked.data(), 9000));
    // Peek with an empty buffer, then small reads from what it kept.
    EXPECT_TRUE(reader.Seek(20000));
    EXPECT_EQ(100u, reader.Peek(peeked.data(), 100));
    EXPECT_EQ(20000, reader.Tell64());
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(10u, reader.Read(out.data() + i * 10, 10));
    EXPECT_EQ(0, memcmp(peeked.data(), out.data(), 100));
    EXPECT_EQ(20100, reader.Tell64());
    // Relative seeks count from the logical position.
    EXPECT_TRUE(reader.SeekOffset64(-100));
    EXPECT_EQ(20000, reader.Tell64());
    EXPECT_EQ(1u, reader.Read(out.data(), 1));
    EXPECT_EQ(bytes[20000], out[0]);
    EXPECT_TRUE(reader.Seek64(29995));
    EXPECT_EQ(5u, reader.Read(out.data(), 300)) << "short at the end of the file";
    EXPECT_EQ(0u, reader.Read(out.data(), 1));
    EXPECT_EQ(0u, reader.Peek(out.data(), 10));
    EXPECT_FALSE(reader.Seek64(-5));
    EXPECT_EQ(30000, reader.Tell64());
}

TEST_F(Files, ChunkedTransfersStopThroughTheProcessInterface) {
    const std::string path = Path("transfer.bin");
    std::vector<char> data(100000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i % 251);
    {
        LWriteFile file(path.c_str());
        CountingProcess stopAtOnce(0);
        EXPECT_EQ(kLProcessStopped, LProcessFileWrite(stopAtOnce, file, data.data(), 100000));
        EXPECT_EQ("", ReadFile(path)) << "nothing written";
        CountingProcess stopLater(3);
        EXPECT_EQ(kLProcessStopped, LProcessFileWrite(stopLater, file, data.data(), 100000));
        EXPECT_EQ(3u * 10240u, ReadFile(path).size());
        ASSERT_EQ(3u, stopLater.progress.size());
        EXPECT_DOUBLE_EQ(10240.0 / 100000, stopLater.progress[0]);
        CountingProcess never(1000);
        EXPECT_EQ(kLProcessDone, LProcessFileWrite(never, file, data.data(), 100000));
        EXPECT_DOUBLE_EQ(1.0, never.progress.back());
        EXPECT_EQ(kLProcessDone, LProcessFileWrite(stopAtOnce, file, data.data(), 0));
    }
    LReadFile file(path.c_str());
    lseek(file.hFile, 3 * 10240, SEEK_SET);
    std::vector<char> back(100000);
    CountingProcess reader(1000);
    EXPECT_EQ(kLProcessDone, LProcessFileRead(reader, file, back.data(), 100000));
    EXPECT_EQ(data, back);
    EXPECT_EQ(kLProcessFailed, LProcessFileRead(reader, file, back.data(), 10))
        << "reading past the end is a short transfer";
    LWriteFileRef none;
    EXPECT_EQ(kLProcessFailed, LProcessFileWrite(reader, none, data.data(), 10));
}

TEST_F(Files, LockFilesMarkADocumentInUse) {
    const std::string document = Path("song.wav");
    const std::string lockPath = Path("song.lck");
    {
        LLockFile lock;
        EXPECT_TRUE(lock.Lock(document.c_str()));
        EXPECT_EQ(0, access(lockPath.c_str(), F_OK));
        // Another process cannot lock the same document.
        EXPECT_EQ(0, ForkAndWait([&] { _exit(LLockFile().Lock(document.c_str()) ? 1 : 0); }));
        // Locking another document releases the first.
        EXPECT_TRUE(lock.Lock(Path("other.doc").c_str()));
        EXPECT_NE(0, access(lockPath.c_str(), F_OK));
    }
    EXPECT_NE(0, access(Path("other.lck").c_str(), F_OK)) << "deleted when released";

    LockHolder holder(lockPath, LOCK_EX);
    ASSERT_TRUE(holder.held);
    LLockFile blocked;
    EXPECT_FALSE(blocked.Lock(document.c_str()));
    holder.Release();
    EXPECT_TRUE(blocked.Lock(document.c_str()));
    LLockFile unwritable;
    EXPECT_TRUE(unwritable.Lock("/proc/no/such/folder/x.doc"))
        << "only another holder's lock is a failure";
}
