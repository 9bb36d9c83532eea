// A document as the readers hand it over, and the pieces it is read in and
// written out by.
#pragma once

#include "translate/input_error.h"
#include "yfwhost/host.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace octunnel {

// How deep a document's nodes may nest: far beyond any real document (the
// models here are a dozen levels deep), far below what could exhaust a
// stack.  JSON counts its arrays and objects, two levels for a list entry.
inline constexpr std::size_t max_depth = 128;
inline constexpr std::size_t max_json_depth = 2 * max_depth + 8;

// How large a document may be: about a million tunnel interfaces, far
// beyond the whole configuration of a router, and still within what the
// machine that reads it can hold.
inline constexpr std::size_t max_document_bytes = std::size_t{1} << 30;

// What a document holds: one tree whose unnamed root holds the top-level
// nodes (or the NETCONF envelope around them), and those nodes themselves.
// A request gets the whole tree as its input, so the operations of the
// nodes are found through their ancestors.
struct Document {
    yfwhost::Tree tree;
    std::vector<vidl_yfw_datatree *> roots;
};

// A document read in pieces, from a file, from standard input ("-"), or
// from memory, of at most `limit` bytes.
class Input {
public:
    // Throws std::runtime_error naming a file that cannot be opened.
    explicit Input(const std::string &file, std::size_t limit = max_document_bytes);
    // A file opened already, which the Input reads but does not close.
    Input(std::FILE *file, std::size_t limit) : file_(file), buffer_(piece), limit_(limit) {}
    // A document in memory, which must outlive the Input.
    Input(std::string_view text, std::size_t limit);
    ~Input();
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    // The next piece of the text; empty at its end.  Throws
    // std::runtime_error when the file cannot be read, and InputError once
    // the document is larger than its limit.
    std::string_view next();

private:
    static constexpr std::size_t piece = 1 << 16;
    std::FILE *file_ = nullptr;
    bool owned_ = false;
    std::vector<char> buffer_;
    std::string_view text_; // what is left of a document in memory
    std::size_t limit_;
    std::size_t read_ = 0;
};

// Text written out in large pieces.  Throws std::runtime_error when the
// stream refuses it.
class Output {
public:
    explicit Output(std::FILE *file) : file_(file), buffer_(capacity) {}
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void put(char c)
    {
        if (used_ == buffer_.size())
            flush();
        buffer_[used_++] = c;
    }
    void put(std::string_view s)
    {
        reserve(s.size());
        std::memcpy(buffer_.data() + used_, s.data(), s.size());
        used_ += s.size();
    }
    // Room for `n` more characters, which put_reserved() then writes.
    void reserve(std::size_t n)
    {
        if (buffer_.size() - used_ < n) {
            flush();
            if (buffer_.size() < n)
                buffer_.resize(n);
        }
    }
    void put_reserved(char c) { buffer_[used_++] = c; }
    void flush();

private:
    static constexpr std::size_t capacity = 1 << 16;
    std::FILE *file_;
    std::vector<char> buffer_;
    std::size_t used_ = 0;
};

// An Output as RapidJSON writes to it; RapidJSON finds the two functions
// below by the stream's type, and writes what it reserved without checks.
struct OutputStream {
    using Ch = char;
    Output &out;
    void Put(char c) { out.put(c); }
    void Flush() {}
};
inline void PutReserve(OutputStream &s, std::size_t n)
{
    s.out.reserve(n);
}
inline void PutUnsafe(OutputStream &s, char c)
{
    s.out.put_reserved(c);
}

// Checks that a text is UTF-8 as RFC 3629 defines it (no overlong forms,
// no surrogates, nothing past U+10FFFF), piece by piece as it streams by.
class Utf8Check {
public:
    // Whether `piece` goes on well from what came before; if not, `bad`
    // is the offset in it of the first byte at fault.
    bool pass(std::string_view piece, std::size_t &bad);
    // Whether the text may end here, not in the middle of a character.
    bool complete() const { return need_ == 0; }

private:
    int need_ = 0;                           // continuation bytes still to come
    unsigned char low_ = 0x80, high_ = 0xBF; // the range of the next one
};

// Checks that every value of the answer is UTF-8, which both syntaxes need.
// The input's text was checked as it was read, but the module may cut a
// value anywhere (a tunnel id is what follows the ninth byte of its
// interface's name), and no answer may carry half a character.  Throws
// InputError naming the node and its bytes.
void check_answer_text(const yfwhost::Answer &answer);

// Where a line of text sits: counts lines as the text goes by, piece by piece.
class LineCounter {
public:
    void pass(std::string_view piece);
    int line() const { return line_; }

private:
    int line_ = 1;
};

} // namespace octunnel
