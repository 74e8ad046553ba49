// Files on a real temporary directory: open modes, the platform's seek
// origins, positioned reads beside sequential ones, and the GUID store.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "Guidrw.h"
#include "MediaBuffer.h"
#include "PAL.h"
#include "TempDir.h"

TEST(PalFile, ModesSeekOriginsAndPositionedReads) {
    TempDir dir;
    std::string p = dir.path + "/data.bin";
    EXPECT_LE(PAL_FileOpen(p.c_str(), FOPEN_READ, 0), 0);  // missing
    long h = PAL_FileOpen(p.c_str(), FOPEN_CREATE, 0);
    ASSERT_GE(h, 1);
    EXPECT_EQ(10, PAL_FileWrite(h, "0123456789", 10));
    EXPECT_EQ(0, PAL_FileClose(h));
    h = PAL_FileOpen(p.c_str(), FOPEN_APPEND, 0);
    ASSERT_GE(h, 1);
    EXPECT_EQ(6, PAL_FileWrite(h, "abcdef", 6));
    PAL_FileClose(h);

    h = PAL_FileOpen(p.c_str(), FOPEN_READ, 0);
    ASSERT_GE(h, 1);
    EXPECT_EQ(16, PAL_FileSize(h));
    char buf[32] = {0};
    EXPECT_EQ(4, PAL_FileRead(h, buf, 4));
    // A positioned read does not move the sequential position; it is short
    // at the end.
    EXPECT_EQ(3, PAL_FileReadAt(h, 10, buf, 3));
    EXPECT_EQ(0, memcmp(buf, "abc", 3));
    EXPECT_EQ(2, PAL_FileReadAt(h, 14, buf, 8));
    EXPECT_EQ(0, PAL_FileReadAt(h, 16, buf, 8));
    // The platform's numbering: START 0, END 1, CURRENT 2; each seek is
    // followed by a one-byte read, which moves the position on.
    const struct {
        long offset;
        int origin;
        long at;
        char next;
    } seeks[] = {{2, FSEEK_CURRENT, 6, '6'}, {-3, FSEEK_END, 13, 'd'}, {1, FSEEK_START, 1, '1'}};
    for (const auto& s : seeks) {
        EXPECT_EQ(s.at, PAL_FileSeek(h, s.offset, s.origin)) << s.origin;
        EXPECT_EQ(1, PAL_FileRead(h, buf, 1));
        EXPECT_EQ(s.next, buf[0]);
    }
    EXPECT_LT(PAL_FileSeek(h, -100, FSEEK_CURRENT), 0);
    EXPECT_LT(PAL_FileSeek(h, 0, 7), 0);
    EXPECT_EQ(16, PAL_FileSeek(h, 0, FSEEK_END));
    EXPECT_EQ(0, PAL_FileRead(h, buf, 4));
    EXPECT_EQ(-1, PAL_FileWrite(h, "x", 1));  // opened for reading
    PAL_FileClose(h);

    h = PAL_FileOpen(p.c_str(), FOPEN_READWRITE, 0);
    ASSERT_GE(h, 1);
    PAL_FileSeek(h, 2, FSEEK_START);
    EXPECT_EQ(2, PAL_FileWrite(h, "XY", 2));
    EXPECT_EQ(16, PAL_FileSize(h));
    EXPECT_EQ(4, PAL_FileReadAt(h, 0, buf, 4));
    EXPECT_EQ(0, memcmp(buf, "01XY", 4));
    PAL_FileClose(h);
    EXPECT_EQ(-1, PAL_FileRead(0, buf, 1));  // no open returns 0
    EXPECT_LE(PAL_FileOpen("/tmp", FOPEN_READ, 0), 0);

    // A media buffer's range stays inside its storage.
    MediaBuffer b(10240);
    ASSERT_NE(nullptr, b.data());
    b.set_range(4, 417);
    b.set_range(10000, 241);     // past the end: ignored
    b.set_range((size_t)-1, 2);  // wraps: ignored
    EXPECT_EQ(4u, b.range_offset());
    EXPECT_EQ(417u, b.range_length());
    b.set_range(0, 10240);  // exactly the storage
    EXPECT_EQ(10240u, b.range_length());
}

TEST(PalFile, GuidStoreKeepsOneBoundedLine) {
    TempDir dir;
    std::string p = dir.path + "/guid";
    Guidrw rw;
    char buf[40];
    memset(buf, 'z', sizeof(buf));
    EXPECT_NE(0, rw.LoadGuid(p.c_str(), buf));
    EXPECT_EQ(0, buf[0]);
    // What is saved is read back; a later save replaces it, leaving nothing
    // behind; a guid with an embedded line end is saved as its first line.
    const char* saves[][2] = {{"6f1c2a90-1b7e-4c55-9d0e-3a8b7c6d5e4f", nullptr},
                              {"short", nullptr},
                              {"first\nsecond", "first"}};
    for (const auto& s : saves) {
        ASSERT_EQ(0, rw.SaveGuid(p.c_str(), s[0]));
        ASSERT_EQ(0, rw.LoadGuid(p.c_str(), buf));
        EXPECT_STREQ(s[1] ? s[1] : s[0], buf);
    }
    // A hostile file: a long first line is cut to the buffer, CRLF stripped.
    const char* files[][2] = {
        {"0123456789012345678901234567890123456789012345678901234567890\r\nsecond\n",
         "012345678901234567890123456789012345678"},
        {"abc\r\n", "abc"}};
    for (const auto& f : files) {
        FILE* out = fopen(p.c_str(), "w");
        ASSERT_NE(nullptr, out);
        fputs(f[0], out);
        fclose(out);
        memset(buf, 'z', sizeof(buf));
        ASSERT_EQ(0, rw.LoadGuid(p.c_str(), buf));
        EXPECT_STREQ(f[1], buf);
    }
}
