#include "framing.h"

namespace octunnel::serve {
namespace {

constexpr std::string_view end_mark = "]]>]]>";
// How much of the end mark still stands after a mismatch following
// `matched` characters of it: the longest border of its first `matched`.
constexpr std::size_t border[] = {0, 0, 1, 0, 1, 2};
constexpr std::string_view base11 = "urn:ietf:params:netconf:base:1.1";
// A hello says little: far less than this.
constexpr std::size_t max_hello = std::size_t{1} << 20;

} // namespace

FramingGuard::Verdict FramingGuard::fail(Verdict v, std::string why)
{
    verdict_ = v;
    reason_ = std::move(why);
    return v;
}

FramingGuard::Verdict FramingGuard::pass(std::string_view bytes)
{
    if (verdict_ != Verdict::ok)
        return verdict_;
    std::size_t i = 0;
    while (i < bytes.size()) {
        const char c = bytes[i];
        switch (state_) {
        case State::end_of_message: {
            // The end mark, found as the bytes go by (Knuth, Morris, Pratt).
            while (matched_ > 0 && c != end_mark[matched_])
                matched_ = border[matched_];
            if (c == end_mark[matched_])
                ++matched_;
            if (hello_)
                hello_text_.push_back(c);
            if (++message_ > (hello_ ? max_hello : max_))
                return fail(Verdict::too_big,
                            hello_ ? "a hello larger than 1 MiB"
                                   : "a message larger than " + std::to_string(max_) + " bytes");
            ++i;
            if (matched_ < end_mark.size())
                break;
            matched_ = 0;
            message_ = 0;
            if (hello_) {
                // Both sides go on in chunks when the client can: the agent
                // always says base:1.1.
                hello_ = false;
                if (hello_text_.find(base11) != std::string::npos)
                    state_ = State::chunk_newline;
                hello_text_.clear();
                hello_text_.shrink_to_fit();
            }
            break;
        }
        case State::chunk_newline:
            if (c != '\n')
                return fail(Verdict::malformed, "a chunk does not start with \"\\n#\"");
            state_ = State::chunk_hash;
            ++i;
            break;
        case State::chunk_hash:
            if (c != '#')
                return fail(Verdict::malformed, "a chunk does not start with \"\\n#\"");
            state_ = State::chunk_first;
            ++i;
            break;
        case State::chunk_first:
            if (c == '#') {
                if (!has_chunk_)
                    return fail(Verdict::malformed, "a message of no chunk");
                state_ = State::end_newline;
            } else if (c >= '1' && c <= '9') {
                chunk_size_ = static_cast<uint64_t>(c - '0');
                digits_ = 1;
                state_ = State::chunk_digits;
            } else {
                return fail(Verdict::malformed, "a chunk size that is not 1 to 4294967295");
            }
            ++i;
            break;
        case State::chunk_digits:
            if (c == '\n') {
                if (message_ + chunk_size_ > max_)
                    return fail(Verdict::too_big,
                                "a message larger than " + std::to_string(max_) + " bytes");
                left_ = chunk_size_;
                state_ = State::chunk_data;
            } else if (c >= '0' && c <= '9' && digits_ < 10) {
                chunk_size_ = chunk_size_ * 10 + static_cast<uint64_t>(c - '0');
                ++digits_;
                if (chunk_size_ > 4294967295u)
                    return fail(Verdict::malformed, "a chunk size that is not 1 to 4294967295");
            } else {
                return fail(Verdict::malformed, "a chunk size that is not 1 to 4294967295");
            }
            ++i;
            break;
        case State::end_newline:
            if (c != '\n')
                return fail(Verdict::malformed, "a message end mark not followed by \"\\n\"");
            state_ = State::chunk_newline;
            has_chunk_ = false;
            message_ = 0;
            ++i;
            break;
        case State::chunk_data: {
            const std::size_t take = static_cast<std::size_t>(
                std::min<uint64_t>(left_, static_cast<uint64_t>(bytes.size() - i)));
            left_ -= take;
            message_ += take;
            i += take;
            if (left_ == 0) {
                has_chunk_ = true;
                state_ = State::chunk_newline;
            }
            break;
        }
        }
    }
    return Verdict::ok;
}

} // namespace octunnel::serve
