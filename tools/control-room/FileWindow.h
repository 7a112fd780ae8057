#pragma once

#include "Asio.h"

// A stored file as the body of an answer to a range request: read from a first byte for a
// number of bytes. The body reads it a buffer at a time, whatever the size of the window.
class FileWindow
{
public:
    /// Opens `path`; the window is the whole file.
    void open(const char *path, beast::file_mode mode, beast::error_code &ec)
    {
        m_file.open(path, mode, ec);
        m_length = ec ? 0 : m_file.size(ec);
    }
    /// Narrows the window to `length` bytes from `first` (both within the file).
    void narrow(std::uint64_t first, std::uint64_t length, beast::error_code &ec)
    {
        m_file.seek(first, ec);
        m_length = length;
    }
    /// True while open.
    bool is_open() const { return m_file.is_open(); }
    /// Closes the file.
    void close(beast::error_code &ec) { m_file.close(ec); }
    /// The window's size: what the body sends.
    std::uint64_t size(beast::error_code &ec) const
    {
        ec = {};
        return m_length;
    }
    /// The position in the file.
    std::uint64_t pos(beast::error_code &ec) { return m_file.pos(ec); }
    /// Moves to `offset` in the file.
    void seek(std::uint64_t offset, beast::error_code &ec) { m_file.seek(offset, ec); }
    /// Reads the next bytes.
    std::size_t read(void *buffer, std::size_t n, beast::error_code &ec) { return m_file.read(buffer, n, ec); }
    /// Writes (not used: answers only read).
    std::size_t write(const void *buffer, std::size_t n, beast::error_code &ec) { return m_file.write(buffer, n, ec); }

private:
    beast::file m_file;
    std::uint64_t m_length = 0;
};
