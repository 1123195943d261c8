// SPDX-License-Identifier: Apache-2.0
// A pattern becomes an automaton whose states are its places. A place is a character of the pattern, or what is written
// for one ("[a-z]", "\w"); the automaton knows which place may be first, which last, and which may follow which.
// Repetitions only add more of the latter, so the automaton is never larger than the text. A line is run through it
// with the set of all places at which what was read so far can have ended; for a character each place is tried at most
// once, whatever the pattern.
//
// Anchors and edges of words are places too. They take no character but ask something of the gap between two, and are
// tried again until a gap leads to no further place.
#include "cli/pattern.h"

#include <cctype>
#include <utility>

namespace ravo::cli {

place_set &place_set::operator|=(const place_set &other) {
    for (std::size_t i = 0; i < words.size(); ++i) words[i] |= other.words[i];
    return *this;
}

place_set place_set::operator&(const place_set &other) const {
    place_set out;
    for (std::size_t i = 0; i < words.size(); ++i) out.words[i] = words[i] & other.words[i];
    return out;
}

bool place_set::any() const {
    for (const std::uint64_t word : words)
        if (word != 0) return true;
    return false;
}

namespace {

// Calls with each place of a set, in their order in the pattern.
template <typename use>
void each_place(const place_set &places, use call) {
    for (std::size_t i = 0; i < places.words.size(); ++i)
        for (std::uint64_t left = places.words[i]; left != 0; left &= left - 1)
            call(i * 64 + static_cast<std::size_t>(std::countr_zero(left)));
}

bool is_word(unsigned char c) {
    return c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_space(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

using byte_set = std::array<bool, 256>;

// ---- Reading a pattern ----

// A part of the pattern: where it may begin and end.
struct part {
    place_set first;
    place_set last;
    bool empty = true;
};

class reader {
  public:
    reader(std::string_view text, pattern *out) : text_(text), out_(out) {}

    // What is wrong with the text; nothing when it is a pattern.
    fault read() {
        const part whole = alternatives();
        out_->first = whole.first;
        out_->last = whole.last;
        out_->empty = whole.empty;
        return wrong_;
    }

  private:
    [[nodiscard]] bool more() const { return !wrong_ && at_ < text_.size(); }
    [[nodiscard]] bool comes(char c) const { return more() && text_[at_] == c; }
    void fail(const char *why) {
        if (!wrong_) wrong_ = {why};
    }

    // A ")" that ends no group is a character like others.
    [[nodiscard]] bool ends_group() const { return depth_ > 0 && text_[at_] == ')'; }

    part alternatives() {
        part out = sequence();
        while (comes('|')) {
            ++at_;
            const part other = sequence();
            out.first |= other.first;
            out.last |= other.last;
            out.empty = out.empty || other.empty;
        }
        return out;
    }

    part sequence() {
        part out;
        while (more() && text_[at_] != '|' && !ends_group()) join(&out, repeated());
        return out;
    }

    // Puts a part behind another.
    void join(part *before, const part &behind) {
        each_place(before->last, [&](std::size_t place) { out_->follow[place] |= behind.first; });
        if (before->empty) before->first |= behind.first;
        if (behind.empty)
            before->last |= behind.last;
        else
            before->last = behind.last;
        before->empty = before->empty && behind.empty;
    }

    part repeated() {
        part out = one();
        for (; comes('*') || comes('+') || comes('?'); ++at_) {
            if (text_[at_] != '?') each_place(out.last, [&](std::size_t place) { out_->follow[place] |= out.first; });
            if (text_[at_] != '+') out.empty = true;
        }
        return out;
    }

    part one() {
        const char c = text_[at_++];
        switch (c) {
            case '(':
                return group();
            case '[':
                return bytes(bracket());
            case '.':
                return bytes(any());
            case '^':
                return gap(gap_kind::line_begin);
            case '$':
                return gap(gap_kind::line_end);
            case '\\':
                return escaped();
            case '*':
            case '+':
            case '?':
                fail("Invalid preceding regular expression");
                return {};
            case '{':
                fail("repetition counts are not supported; write \\{ for the character");
                return {};
            default:
                return bytes(only(c));
        }
    }

    part group() {
        ++depth_;
        const part out = alternatives();
        --depth_;
        if (!comes(')')) fail("Unmatched ( or \\(");
        ++at_;
        return out;
    }

    part escaped() {
        if (!more()) {
            fail("Trailing backslash");
            return {};
        }
        const char c = text_[at_++];
        if (c >= '0' && c <= '9') fail("back-references are not supported");
        switch (c) {
            case 'w':
                return bytes(those(is_word, true));
            case 'W':
                return bytes(those(is_word, false));
            case 's':
                return bytes(those(is_space, true));
            case 'S':
                return bytes(those(is_space, false));
            case '<':
                return gap(gap_kind::word_begin);
            case '>':
                return gap(gap_kind::word_end);
            case 'b':
                return gap(gap_kind::word_edge);
            case 'B':
                return gap(gap_kind::no_word_edge);
            case '`':
                return gap(gap_kind::line_begin);
            case '\'':
                return gap(gap_kind::line_end);
            default:
                return bytes(only(c));
        }
    }

    // ---- Brackets ----

    byte_set bracket() {
        byte_set out{};
        const bool inverted = comes('^');
        if (inverted) ++at_;
        const std::size_t begin = at_;
        while (more() && (text_[at_] != ']' || at_ == begin)) bracket_item(&out);
        if (!more()) fail("Unmatched [, [^, [:, [., or [=");
        ++at_;
        if (inverted)
            for (bool &each : out) each = !each;
        return out;
    }

    void bracket_item(byte_set *out) {
        if (text_.substr(at_).starts_with("[:")) return character_class(out);
        const unsigned char low = bracket_character();
        unsigned char high = low;
        const bool range = comes('-') && at_ + 1 < text_.size() && text_[at_ + 1] != ']';
        if (range) {
            ++at_;
            high = bracket_character();
        }
        if (high < low) fail("Invalid range end");
        for (unsigned c = low; c <= high; ++c) (*out)[c] = true;
    }

    // A character, or "[.c.]" or "[=c=]" for one.
    unsigned char bracket_character() {
        const std::string_view rest = text_.substr(at_);
        if (!rest.starts_with("[.") && !rest.starts_with("[=")) return static_cast<unsigned char>(text_[at_++]);
        const char end[] = {rest[1], ']', '\0'};
        const std::size_t length = rest.find(end, 3);
        if (length == std::string_view::npos) {
            fail("Unmatched [, [^, [:, [., or [=");
            return 0;
        }
        if (length != 3) fail("Invalid collation character");
        at_ += length + 2;
        return static_cast<unsigned char>(rest[2]);
    }

    void character_class(byte_set *out) {
        static constexpr struct {
            std::string_view name;
            int (*is)(int);
        } classes[] = {{"alnum", std::isalnum}, {"alpha", std::isalpha}, {"blank", std::isblank},
                       {"cntrl", std::iscntrl}, {"digit", std::isdigit}, {"graph", std::isgraph},
                       {"lower", std::islower}, {"print", std::isprint}, {"punct", std::ispunct},
                       {"space", std::isspace}, {"upper", std::isupper}, {"xdigit", std::isxdigit}};
        const std::size_t end = text_.find(":]", at_);
        if (end == std::string_view::npos) return fail("Unmatched [, [^, [:, [., or [=");
        const std::string_view name = text_.substr(at_ + 2, end - at_ - 2);
        at_ = end + 2;
        for (const auto &each : classes) {
            if (each.name != name) continue;
            for (int c = 0; c < 128; ++c) (*out)[static_cast<std::size_t>(c)] |= each.is(c) != 0;
            return;
        }
        fail("Invalid character class name");
    }

    // ---- Places ----

    static byte_set any() {
        byte_set out;
        out.fill(true);
        return out;
    }
    static byte_set only(char c) {
        byte_set out{};
        out[static_cast<unsigned char>(c)] = true;
        return out;
    }
    static byte_set those(bool (*is)(unsigned char), bool wanted) {
        byte_set out{};
        for (unsigned c = 0; c < out.size(); ++c) out[c] = is(static_cast<unsigned char>(c)) == wanted;
        return out;
    }

    // Each place takes at least one character of the text, so there is room for all.
    part place() {
        part out;
        out.first.add(places_);
        out.last = out.first;
        out.empty = false;
        return out;
    }
    part bytes(const byte_set &taken) {
        for (std::size_t c = 0; c < taken.size(); ++c)
            if (taken[c]) out_->takes[c].add(places_);
        part out = place();
        ++places_;
        return out;
    }
    part gap(gap_kind kind) {
        if (comes('*') || comes('+') || comes('?')) fail("Invalid preceding regular expression");
        out_->holds[static_cast<std::size_t>(kind)].add(places_);
        part out = place();
        ++places_;
        return out;
    }

    std::string_view text_;
    pattern *out_;
    std::size_t at_ = 0;
    std::size_t depth_ = 0;   // groups that are open
    std::size_t places_ = 0;  // so far
    fault wrong_;
};

// ---- Matching a line ----

// The places whose condition holds in the gap before a character.
place_set holding(const pattern &what, std::string_view line, std::size_t at) {
    const bool before = at > 0 && is_word(static_cast<unsigned char>(line[at - 1]));
    const bool behind = at < line.size() && is_word(static_cast<unsigned char>(line[at]));
    const bool holds[gap_kinds] = {at == 0,           at == line.size(), !before && behind,
                                   before && !behind, before != behind,  before == behind};
    place_set out;
    for (std::size_t kind = 0; kind < gap_kinds; ++kind)
        if (holds[kind]) out |= what.holds[kind];
    return out;
}

// The places that may come next.
place_set next_of(const pattern &what, const place_set &reached) {
    place_set out = what.first;  // a match may begin anywhere
    each_place(reached, [&](std::size_t place) { out |= what.follow[place]; });
    return out;
}

// Adds the places that are reached without a character.
void cross_gap(const pattern &what, const place_set &open, place_set *reached) {
    if (!open.any()) return;
    place_set before;
    do {
        before = *reached;
        *reached |= next_of(what, *reached) & open;
    } while (!(before == *reached));
}

}  // namespace

fault pattern_read(std::string_view text, std::unique_ptr<pattern> *out) {
    out->reset();
    if (text.find('\0') != std::string_view::npos) return {"it holds a NUL character"};
    if (text.size() > pattern_limit) return {"longer than " + std::to_string(pattern_limit) + " characters"};
    auto read = std::make_unique<pattern>();
    fault wrong = reader(text, read.get()).read();
    if (!wrong) *out = std::move(read);
    return wrong;
}

bool pattern_matches(const pattern &what, std::string_view line) {
    if (what.empty) return true;
    place_set reached;
    for (std::size_t at = 0;; ++at) {
        cross_gap(what, holding(what, line, at), &reached);
        if ((reached & what.last).any()) return true;
        if (at == line.size()) return false;
        reached = next_of(what, reached) & what.takes[static_cast<unsigned char>(line[at])];
    }
}

}  // namespace ravo::cli
