#pragma once

#include "DAbstractImageReader.h"
#include "DImage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

namespace norvexa_test {

/// The whole of a file, as a string or a vector of char.
template <class Bytes = std::vector<char>>
Bytes fileBytes(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << "missing file " << path;
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// The first `length` bytes, as a reader takes them from memory.
template <class Bytes>
norvexa::imglib::DAbstractImageReader::Data readerData(const Bytes& bytes, std::size_t length)
{
    norvexa::imglib::DAbstractImageReader::Data data;
    data.resize(length);
    if (length)
        std::memcpy(data.data(), bytes.data(), length);
    return data;
}
template <class Bytes>
norvexa::imglib::DAbstractImageReader::Data readerData(const Bytes& bytes)
{
    return readerData(bytes, bytes.size());
}

/// The pixel bytes of an image.
inline std::vector<char> pixelBytes(const norvexa::imglib::DImage& image)
{
    return std::vector<char>(image.cdata(), image.cdata() + image.size() * image.dataSize());
}

/// Flips every byte of `file` in turn with each mask and hands the result to `read`, which
/// may succeed or throw `Own` with a text that `isOwn` accepts; anything else is a failure.
template <class Own, class Bytes, class Read, class IsOwn>
void expectEveryFlipReadsOrFailsOwnWay(const Bytes& file, std::initializer_list<unsigned char> masks, Read read,
                                       IsOwn isOwn)
{
    for (std::size_t at = 0; at < file.size(); ++at)
        for (unsigned char mask : masks) {
            Bytes flipped = file;
            flipped[at] = static_cast<char>(flipped[at] ^ mask);
            try {
                read(flipped, at);
            } catch (const Own& e) {
                EXPECT_TRUE(isOwn(std::string(e.what()))) << "byte " << at << ": " << e.what();
            } catch (const std::exception& e) {
                ADD_FAILURE() << "byte " << at << ": " << e.what();
            }
        }
}

} // namespace norvexa_test
