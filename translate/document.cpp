#include "translate/document.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace octunnel {

Input::Input(const std::string &file, std::size_t limit)
    : file_(file == "-" ? stdin : std::fopen(file.c_str(), "rb")), owned_(file != "-"),
      buffer_(piece), limit_(limit)
{
    if (file_ == nullptr)
        throw std::runtime_error("cannot read " + file + ": " + std::strerror(errno));
}

Input::Input(std::string_view text, std::size_t limit) : text_(text), limit_(limit) {}

Input::~Input()
{
    if (owned_)
        std::fclose(file_);
}

std::string_view Input::next()
{
    std::string_view got;
    if (file_ == nullptr) {
        got = text_.substr(0, piece);
        text_.remove_prefix(got.size());
    } else {
        std::size_t n = std::fread(buffer_.data(), 1, buffer_.size(), file_);
        if (n == 0 && std::ferror(file_))
            throw std::runtime_error(std::string("cannot read the input: ") + std::strerror(errno));
        got = {buffer_.data(), n};
    }
    read_ += got.size();
    if (read_ > limit_) {
        const bool mib = limit_ % (std::size_t{1} << 20) == 0;
        throw InputError(0, "the document is larger than " +
                                std::to_string(mib ? limit_ >> 20 : limit_) +
                                (mib ? " MiB" : " bytes") + ", the most octunnel reads");
    }
    return got;
}

Output::~Output()
{
    if (used_ == 0)
        return;
    try {
        flush();
    } catch (const std::exception &) {
        // Reported by the flush that the writer calls itself at its end.
    }
}

void Output::flush()
{
    if (used_ != 0 && std::fwrite(buffer_.data(), 1, used_, file_) != used_)
        throw std::runtime_error(std::string("cannot write the answer: ") + std::strerror(errno));
    used_ = 0;
    if (std::fflush(file_) != 0)
        throw std::runtime_error(std::string("cannot write the answer: ") + std::strerror(errno));
}

std::string one_line(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (u >= 0x20 && u != 0x7F) {
            out.push_back(c);
            continue;
        }
        char escape[8];
        if (c == '\n' || c == '\r' || c == '\t')
            std::snprintf(escape, sizeof escape, "\\%c", c == '\n' ? 'n' : c == '\r' ? 'r' : 't');
        else
            std::snprintf(escape, sizeof escape, "\\x%02X", u);
        out.append(escape);
    }
    return out;
}

bool Utf8Check::pass(std::string_view piece, std::size_t &bad)
{
    const auto *p = reinterpret_cast<const unsigned char *>(piece.data());
    const std::size_t n = piece.size();
    std::size_t i = 0;
    // Where the character being checked starts, when in this piece.
    std::size_t lead = n;
    while (i < n) {
        if (need_ == 0) {
            // Most of a document is ASCII: eight bytes at a time.
            while (i + 8 <= n) {
                uint64_t word;
                std::memcpy(&word, p + i, 8);
                if ((word & 0x8080808080808080ull) != 0)
                    break;
                i += 8;
            }
            if (i == n)
                break;
            const unsigned char c = p[i];
            if (c < 0x80) {
                ++i;
                continue;
            }
            lead = i;
            low_ = 0x80;
            high_ = 0xBF;
            if (c >= 0xC2 && c <= 0xDF)
                need_ = 1;
            else if (c >= 0xE0 && c <= 0xEF) {
                need_ = 2;
                if (c == 0xE0)
                    low_ = 0xA0; // no overlong form
                else if (c == 0xED)
                    high_ = 0x9F; // no surrogate
            } else if (c >= 0xF0 && c <= 0xF4) {
                need_ = 3;
                if (c == 0xF0)
                    low_ = 0x90; // no overlong form
                else if (c == 0xF4)
                    high_ = 0x8F; // nothing past U+10FFFF
            } else {
                bad = i;
                return false;
            }
            ++i;
            continue;
        }
        const unsigned char c = p[i];
        if (c < low_ || c > high_) {
            bad = lead < n ? lead : i;
            return false;
        }
        low_ = 0x80;
        high_ = 0xBF;
        --need_;
        ++i;
    }
    return true;
}

void LineCounter::pass(std::string_view piece)
{
    line_ += static_cast<int>(std::count(piece.begin(), piece.end(), '\n'));
}

void check_answer_text(const yfwhost::Answer &answer)
{
    for (yfwhost::Answer::Id id = 0; id < answer.size(); ++id) {
        const char *value = answer.value(id);
        if (value == nullptr)
            continue;
        const std::string_view text(value);
        Utf8Check check;
        std::size_t bad = 0;
        if (check.pass(text, bad)) {
            if (check.complete())
                continue;
            bad = text.size();
        }
        std::string bytes;
        char hex[8];
        for (std::size_t i = bad; i < text.size() && i < bad + 4; ++i) {
            std::snprintf(hex, sizeof hex, " 0x%02X", static_cast<unsigned char>(text[i]));
            bytes += hex;
        }
        throw InputError(0, "the module's answer holds text that is not UTF-8 in " +
                                element_name(answer.tag(id)) +
                                (bytes.empty() ? std::string(": it ends inside a character")
                                               : ", at bytes" + bytes));
    }
}

} // namespace octunnel
