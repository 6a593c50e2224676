/* Shared helpers of the test-suite: temporary directories, captured
 * standard output, and handles loaded from payloads built by the writer. */
#ifndef TAZE_TEST_SUPPORT_H
#define TAZE_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

#include "tazapi.h"
#include "tazewriter.h"
#include "vk_platform.h"

namespace tazt {

/* A fresh, empty directory for one test. */
inline std::string temp_dir()
{
    const char *base = std::getenv("TAZE_TEST_TMP");
    std::string root = base ? base : "/tmp";
    std::string cmd = "mkdir -p '" + root + "'";
    if (std::system(cmd.c_str()) != 0) return "/tmp";
    std::string tmpl = root + "/tazeXXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    const char *d = mkdtemp(buf.data());
    return d ? std::string(d) : root;
}

/* Captures what the library prints on standard output. */
class StdoutCapture {
public:
    StdoutCapture()
    {
        std::fflush(stdout);
        path_ = temp_dir() + "/stdout.txt";
        saved_ = dup(STDOUT_FILENO);
        int fd = open(path_.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    ~StdoutCapture() { finish(); }
    std::string finish()
    {
        if (saved_ >= 0) {
            std::fflush(stdout);
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
            saved_ = -1;
            FILE *f = std::fopen(path_.c_str(), "rb");
            if (f) {
                char chunk[4096];
                size_t n;
                while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) text_.append(chunk, n);
                std::fclose(f);
            }
        }
        return text_;
    }

private:
    std::string path_;
    std::string text_;
    int saved_ = -1;
};

/* Sets the debug mask for one scope and restores it afterwards. */
class DebugMask {
public:
    explicit DebugMask(unsigned int mask) : saved_(debugLevel) { debugLevel = mask; }
    ~DebugMask() { debugLevel = saved_; }

private:
    unsigned int saved_;
};

struct HandleDeleter {
    void operator()(TAZE *h) const { TAZE_Fini(h); }
};
using Handle = std::unique_ptr<TAZE, HandleDeleter>;

inline Handle new_handle()
{
    TAZE *h = nullptr;
    EXPECT_EQ(TAZE_Init(&h), 0);
    return Handle(h);
}

/* A container file holding a main payload and, optionally, a second-kind
 * payload and a raw payload, all encrypted. */
inline tazw::Bytes pattern_file(const tazw::Bytes &taz, std::uint32_t ptnVer = 0x1230004D,
                                std::optional<tazw::Bytes> ulm = std::nullopt,
                                std::optional<tazw::Bytes> raw = std::nullopt)
{
    tazw::Container c;
    c.ptnVer = ptnVer;
    tazw::SubPattern s;
    s.payload = taz;
    c.subs.push_back(s);
    if (ulm) {
        tazw::SubPattern u;
        u.subtype = 8;
        u.payload = *ulm;
        c.subs.push_back(u);
    }
    if (raw) {
        tazw::SubPattern r;
        r.subtype = 9;
        r.payload = *raw;
        c.subs.push_back(r);
    }
    return tazw::build_container(c);
}

/* Writes the file into a fresh directory and returns its path. */
inline std::string write_temp(const tazw::Bytes &file, const std::string &name = "p1.ptn")
{
    std::string path = temp_dir() + "/" + name;
    EXPECT_TRUE(tazw::write_file(path, file));
    return path;
}

/* Writes text into `dir` and returns its path. */
inline std::string write_text(const std::string &dir, const std::string &name, const std::string &text)
{
    const std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

/* The example source of the repository. */
inline std::string example_path()
{
    const std::string here = __FILE__;
    return here.substr(0, here.rfind("/tests/")) + "/examples/example.json";
}

/* A handle with the payload(s) loaded through the public API. */
inline Handle load_payload(const tazw::Bytes &taz, std::optional<tazw::Bytes> ulm = std::nullopt)
{
    Handle h = new_handle();
    std::string path = write_temp(pattern_file(taz, 0x1230004D, ulm));
    EXPECT_EQ(TAZE_LoadPattern(h.get(), path.c_str()), 0);
    return h;
}

} // namespace tazt

#endif /* TAZE_TEST_SUPPORT_H */
