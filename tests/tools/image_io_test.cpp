// The command line's files: images read right or refused, and no output that is an input.
#include "image_io.h"

#include <zlib.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "runtime/memory.h"
#include "support/scenes.h"

namespace {

namespace fs = std::filesystem;
using qxmatte::declaredSize;
using qxmatte::readImage;
using qxmatte::readPlane;
const std::vector<int> kRawTiff = {cv::IMWRITE_TIFF_COMPRESSION, 1};

class Files : public qxtest::TempFolder {
protected:
    static std::vector<unsigned char> bytes(const std::string& p) {
        std::ifstream in(p, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static void write(const std::string& p, const std::vector<unsigned char>& b) {
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()),
                                                 static_cast<std::streamsize>(b.size()));
    }
    // A photo-like image with detail everywhere (so that a JPEG of it has data in every row).
    static cv::Mat texture(int w, int h) {
        cv::Mat m(h, w, CV_8UC3);
        cv::randu(m, 0, 256);
        return m;
    }
};

// ---- Samples of more than 8 bits are scaled by their range ------------------------------------

TEST_F(Files, FloatAndSixteenBitImagesAreScaledByTheirRange) {
    // Float 0..1: 0.5 is 127.5, which rounds to 128; 0.2 is 51; 1 is 255. (Uncompressed:
    // OpenCV writes colour floats as LogLuv by default, which keeps three digits or so.)
    cv::Mat f(4, 5, CV_32FC3, cv::Scalar(0.2f, 0.5f, 1.0f));
    ASSERT_TRUE(cv::imwrite(path("f.tif"), f, kRawTiff));
    cv::Mat got;
    ASSERT_EQ(readImage(path("f.tif"), &got), "");
    ASSERT_EQ(got.type(), CV_8UC3);
    EXPECT_EQ(got.at<cv::Vec3b>(2, 3), cv::Vec3b(51, 128, 255));
    // A grey float plane (an alpha saved by another program) the same way.
    cv::Mat a(3, 3, CV_32FC1, cv::Scalar(0.25f));
    ASSERT_TRUE(cv::imwrite(path("a.tif"), a, kRawTiff));
    ASSERT_EQ(readPlane(path("a.tif"), "alpha", &got), "");
    EXPECT_EQ(got.at<uchar>(1, 1), 64);  // 63.75
    // 16 bits: 65535 is white, 32896 (0x8080) exactly 128, 257 exactly 1.
    cv::Mat s(2, 2, CV_16UC3, cv::Scalar(257, 32896, 65535));
    ASSERT_TRUE(cv::imwrite(path("s.png"), s));
    ASSERT_EQ(readImage(path("s.png"), &got), "");
    EXPECT_EQ(got.at<cv::Vec3b>(1, 1), cv::Vec3b(1, 128, 255));
}

TEST_F(Files, FloatImagesOutsideZeroToOneAreRefused) {
    // A float image on the 0..255 scale (or holding NaN) would be read wrongly whatever the
    // guess: it is refused and says what is taken.
    for (float v : {255.0f, -0.5f, std::nanf("")}) {
        cv::Mat f(3, 3, CV_32FC3, cv::Scalar(0.5f, 0.5f, 0.5f));
        f.at<cv::Vec3f>(1, 1)[0] = v;
        ASSERT_TRUE(cv::imwrite(path("f.tif"), f, kRawTiff));
        cv::Mat got;
        const std::string err = readImage(path("f.tif"), &got);
        EXPECT_NE(err.find("values from 0 to 1"), std::string::npos) << v << ": " << err;
        EXPECT_TRUE(got.empty());
    }
}

// ---- Damaged files are refused ---------------------------------------------------------------

TEST_F(Files, FilesCutShortOrCorruptAreRefused) {
    const cv::Mat image = texture(64, 48);
    cv::Mat got;
    for (const std::string name : {"t.jpg", "t.png", "t.tif", "t.webp"}) {
        ASSERT_TRUE(cv::imwrite(path(name), image));
        ASSERT_EQ(readImage(path(name), &got), "") << name;
        EXPECT_EQ(got.size(), image.size());
        const std::vector<unsigned char> b = bytes(path(name));
        write(path("half_" + name), {b.begin(), b.begin() + b.size() / 2});
        const std::string err = readImage(path("half_" + name), &got);
        EXPECT_NE(err, "") << name;
        EXPECT_TRUE(got.empty()) << name;
        if (name == "t.jpg") {
            EXPECT_NE(err.find("half_t.jpg: a damaged JPEG file"), std::string::npos) << err;
            // Garbage in the middle of the entropy-coded data.
            std::vector<unsigned char> corrupt = b;
            std::fill_n(corrupt.begin() + b.size() / 2, 40, 0xFF);
            write(path("corrupt.jpg"), corrupt);
            EXPECT_NE(readImage(path("corrupt.jpg"), &got).find("a damaged JPEG file"),
                      std::string::npos);
        }
    }
}

// ---- Sizes from headers, checked before decoding ---------------------------------------------

TEST_F(Files, HeadersGiveTheSizeWritten) {
    const cv::Mat image = texture(37, 21);
    for (const char* name : {"h.png", "h.jpg", "h.tif", "h.webp", "h.bmp"}) {
        ASSERT_TRUE(cv::imwrite(path(name), image));
        const std::vector<unsigned char> b = bytes(path(name));
        const qxmatte::DeclaredSize d = declaredSize(b.data(), b.size());
        EXPECT_TRUE(d.known) << name;
        EXPECT_EQ(d.width, 37) << name;
        EXPECT_EQ(d.height, 21) << name;
    }
    // Lossless WebP has a header of its own.
    ASSERT_TRUE(cv::imwrite(path("l.webp"), image, {cv::IMWRITE_WEBP_QUALITY, 101}));
    const std::vector<unsigned char> l = bytes(path("l.webp"));
    const qxmatte::DeclaredSize d = declaredSize(l.data(), l.size());
    EXPECT_TRUE(d.known && d.width == 37 && d.height == 21);
    // A header cut short, or no image at all, gives no size rather than a wrong one.
    const std::vector<unsigned char> png = bytes(path("h.png"));
    EXPECT_FALSE(declaredSize(png.data(), 20).known);
    const unsigned char text[] = "this is not an image";
    EXPECT_FALSE(declaredSize(text, sizeof text).known);
}

TEST_F(Files, ATiffTagGivenTwiceCountsAtItsFirstEntryAsTheDecoderReadsIt) {
    // A 7 x 9 grey TIFF by hand whose directory gives the width a second time (1) after the first
    // (7): the decoder keeps the first, so the size checked before decoding must be that one.
    std::vector<unsigned char> t = {'I', 'I', 42, 0, 8, 0, 0, 0};
    const std::vector<std::array<uint32_t, 3>> entries = {  // tag, type (3 SHORT, 4 LONG), value
        {256, 4, 7}, {257, 4, 9}, {258, 3, 8}, {256, 3, 1}, {259, 3, 1}, {262, 3, 1},
        {273, 4, 0}, {277, 3, 1}, {278, 4, 9}, {279, 4, 63}};
    const uint32_t pixelsAt = 8 + 2 + 12 * static_cast<uint32_t>(entries.size()) + 4;
    auto put = [&t](uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i) t.push_back(static_cast<unsigned char>(v >> (8 * i)));
    };
    put(static_cast<uint32_t>(entries.size()), 2);
    for (const auto& [tag, type, value] : entries) {
        put(tag, 2);
        put(type, 2);
        put(1, 4);
        put(tag == 273 ? pixelsAt : value, 4);
    }
    put(0, 4);  // no next directory
    for (int i = 0; i < 63; ++i) t.push_back(static_cast<unsigned char>(4 * i));
    write(path("twice.tif"), t);

    const qxmatte::DeclaredSize d = declaredSize(t.data(), t.size());
    ASSERT_TRUE(d.known);
    EXPECT_EQ(d.width, 7);
    EXPECT_EQ(d.height, 9);
    cv::Mat image;
    ASSERT_EQ(readImage(path("twice.tif"), &image), "");
    EXPECT_EQ(image.cols, 7);
    EXPECT_EQ(image.rows, 9);
}

TEST_F(Files, AHugeDeclaredSizeIsRefusedBeforeDecoding) {
    // A small PNG whose header declares 30000 x 30000: decoding it would take 2.7 GB.
    ASSERT_TRUE(cv::imwrite(path("small.png"), texture(8, 8)));
    std::vector<unsigned char> b = bytes(path("small.png"));
    for (int at : {16, 20}) {  // IHDR width and height, big-endian
        b[at] = 0;
        b[at + 1] = 0;
        b[at + 2] = 30000 >> 8;
        b[at + 3] = 30000 & 0xFF;
    }
    write(path("huge.png"), b);
    cv::Mat got;
    const auto start = std::chrono::steady_clock::now();
    const std::string err = readImage(path("huge.png"), &got);
    EXPECT_NE(err.find("30000x30000 is 900 megapixels, over the limit of 400"), std::string::npos)
        << err;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    // The limit can be raised; then the file is what it is (here: damaged).
    qxmatte::setPixelLimit(1000);
    EXPECT_EQ(readImage(path("huge.png"), &got).find("over the limit"), std::string::npos);
    qxmatte::setPixelLimit(qxmatte::kDefaultMegapixels);
}

TEST_F(Files, AnImageThatCannotBeDecodedSaysWhetherMemoryOrTheFileIsAtFault) {
    // A PNG whose chunks are whole (so the chunk walk passes it) but whose image data holds
    // one row of a 3000 x 3000 image: the decoder fails. 8-bit colour needs 27 MB, and the
    // decoder as much again.
    std::vector<unsigned char> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    auto chunk = [&](const char* type, const std::vector<unsigned char>& data) {
        const uint32_t n = uint32_t(data.size());
        for (int k = 3; k >= 0; --k) png.push_back((n >> (8 * k)) & 0xFF);
        std::vector<unsigned char> body(type, type + 4);
        body.insert(body.end(), data.begin(), data.end());
        png.insert(png.end(), body.begin(), body.end());
        const uint32_t crc = uint32_t(crc32(0, body.data(), uInt(body.size())));
        for (int k = 3; k >= 0; --k) png.push_back((crc >> (8 * k)) & 0xFF);
    };
    chunk("IHDR", {0, 0, 0x0B, 0xB8, 0, 0, 0x0B, 0xB8, 8, 2, 0, 0, 0});  // 3000 x 3000 RGB
    std::vector<unsigned char> row(1 + 3000 * 3, 0), packed(compressBound(uLong(row.size())));
    uLongf size = uLongf(packed.size());
    ASSERT_EQ(compress(packed.data(), &size, row.data(), uLong(row.size())), Z_OK);
    chunk("IDAT", {packed.begin(), packed.begin() + long(size)});
    chunk("IEND", {});
    write(path("short.png"), png);
    cv::Mat got;
    {
        const qx::MemStatus little{8000000000ull, 10000000ull, uint64_t(1) << 46};  // 10 MB free
        qx::overrideMemStatus(&little);
        const std::string err = readImage(path("short.png"), &got);
        qx::overrideMemStatus(nullptr);
        EXPECT_EQ(err, path("short.png") + ": out of memory: decoding the 3000x3000 PNG image "
                                           "needs about 54 MB and 10 MB is free; close other "
                                           "programs or use a smaller image");
    }
    const qx::MemStatus plenty{8000000000ull, 4000000000ull, uint64_t(1) << 46};
    qx::overrideMemStatus(&plenty);
    const std::string err = readImage(path("short.png"), &got);
    qx::overrideMemStatus(nullptr);
    EXPECT_EQ(err, path("short.png") + ": cannot decode the 3000x3000 PNG image (the file is "
                                       "damaged)");
    EXPECT_TRUE(got.empty());
}

// ---- Only regular files are opened -----------------------------------------------------------

TEST_F(Files, PipesAndFoldersAreNotOpened) {
    ASSERT_EQ(mkfifo(path("pipe.png").c_str(), 0600), 0);
    cv::Mat got;
    // A FIFO with no writer would block an open() for ever; it is refused at once instead.
    std::string err = readImage(path("pipe.png"), &got);
    EXPECT_NE(err.find("not a regular file"), std::string::npos) << err;
    fs::create_directories(path("folder.png"));
    err = readImage(path("folder.png"), &got);
    EXPECT_NE(err.find("a folder"), std::string::npos) << err;
    err = readImage(path("missing.png"), &got);
    EXPECT_NE(err.find("missing.png: no such file"), std::string::npos) << err;
}

// ---- No output may be an input ----------------------------------------------------------------

TEST_F(Files, AnOutputThatIsAnInputUnderAnySpellingIsRefused) {
    ASSERT_TRUE(cv::imwrite(path("p.png"), texture(4, 4)));
    fs::create_directories(path("sub"));
    fs::create_hard_link(path("p.png"), path("sub/hard.png"));
    fs::create_symlink(path("p.png"), path("link.png"));
    const std::string input = path("p.png");
    for (const std::string& spelling :
         {input, path("./p.png"), path("sub/../p.png"), path("sub/hard.png"), path("link.png")}) {
        EXPECT_TRUE(qxmatte::sameFile(spelling, input)) << spelling;
        const std::string err = qxmatte::checkOutputs({{spelling}}, {"unrelated.png", input});
        EXPECT_NE(err.find("is an input"), std::string::npos) << spelling << ": " << err;
    }
    // Relative to the working folder, too.
    const fs::path here = fs::current_path();
    fs::current_path(dir_);
    EXPECT_NE(qxmatte::checkOutputs({{"./p.png"}}, {"p.png"}), "");
    EXPECT_NE(qxmatte::checkOutputs({{"new.png"}, {"sub/../new.png"}}, {}), "");
    EXPECT_EQ(qxmatte::checkOutputs({{"new.png"}, {"other.png"}}, {"p.png"}), "");
    fs::current_path(here);
    // Two outputs that are one file through a hard link.
    EXPECT_NE(qxmatte::checkOutputs({{path("p.png")}, {path("sub/hard.png")}}, {})
                  .find("named for two outputs"),
              std::string::npos);
    EXPECT_FALSE(qxmatte::sameFile(path("p.png"), path("q.png")));
}

}  // namespace
