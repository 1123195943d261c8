// SPDX-License-Identifier: Apache-2.0
// A line is matched word by word against all commands at once, as a race: every command that the session may use
// starts, and a word keeps those in the race that it fits best. A whole keyword beats everything, a number, an address
// or an interface name beats the beginning of a keyword, and that beats places where any word would do. When the best
// fit is the beginning of several different keywords, the word is ambiguous, whatever follows it.
#include "cli/match.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace ravo::cli {

namespace {

struct runner {
    const command *what = nullptr;
    position at;
    std::vector<std::string> arguments;
    std::size_t rest = 0;
};

struct candidate {
    const runner *from;
    step taken;
};

bool may_give(const caller &by, const command &what) {
    const bool is_for_them = by.who == audience::operators || what.traits.who == audience::viewers;
    return is_for_them && what.privilege <= by.privilege;
}

// What only looks, people may give in any mode.
bool is_given_in(int mode, const command &what) {
    return what.mode == mode || (what.traits.effect == command_effect::looks && what.privilege < program_privilege);
}

std::vector<runner> starters(const cli_tree &tree, int mode, const caller &by) {
    std::vector<runner> out;
    for (const command &each : tree.commands)
        if (is_given_in(mode, each) && may_give(by, each)) out.push_back({&each, {}, {}, 0});
    return out;
}

// The steps that the word fits best.
std::vector<candidate> best_steps(const std::vector<runner> &runners, const word &typed) {
    std::vector<candidate> best;
    fit best_fit = fit::none;
    std::vector<step> steps;
    for (const runner &each : runners) {
        steps.clear();
        (void)next_steps(each.what->form, each.at, &steps);  // that the line might end here is of no use to a word
        for (const step &one : steps) {
            const fit found = fits(*one.what, typed);
            if (found == fit::none || found < best_fit) continue;
            if (found > best_fit) best.clear();
            best_fit = found;
            best.push_back({&each, one});
        }
    }
    return best;
}

bool is_ambiguous(const std::vector<candidate> &steps, const word &typed) {
    const auto differs = [&](const candidate &each) {
        return each.taken.what->kind == token_kind::keyword && each.taken.what->text != steps.front().taken.what->text;
    };
    // Whole keywords are equal to each other, so what differs is abbreviated.
    return !typed.quoted && std::any_of(steps.begin(), steps.end(), differs);
}

runner take(const candidate &each, const word &typed, std::string_view line) {
    runner out = *each.from;
    const token &what = *each.taken.what;
    out.at = each.taken.after;
    if (what.kind == token_kind::line) {
        out.rest = typed.column;
        out.arguments.emplace_back(trim(line.substr(std::min(typed.column, line.size()))));
    } else if (what.argument) {
        out.arguments.push_back(argument_of(what, typed));
    }
    return out;
}

bool takes_the_rest(const std::vector<runner> &runners) {
    return !runners.empty() && runners.front().rest != 0;
}

// Runs the race over the words. Returns false at a word that ends it, *out then says why.
bool race(std::vector<runner> *runners, const std::vector<word> &words, std::string_view line, match *out) {
    for (std::size_t i = 0; i < words.size() && !takes_the_rest(*runners); ++i) {
        const std::vector<candidate> steps = best_steps(*runners, words[i]);
        out->word = i;
        if (steps.empty()) return false;
        if (is_ambiguous(steps, words[i])) {
            out->result = match_result::ambiguous;
            return false;
        }
        std::vector<runner> next;
        for (const candidate &each : steps) next.push_back(take(each, words[i], line));
        *runners = std::move(next);
    }
    return true;
}

// Adds a token to those that are listed. Where two commands share a word the daemon's explains it.
void list_once(std::vector<candidate> *listed, const candidate &one) {
    const auto same = std::find_if(listed->begin(), listed->end(), [&](const candidate &each) {
        return each.taken.what->text == one.taken.what->text;
    });
    if (same == listed->end())
        listed->push_back(one);
    else if (one.from->what->of_daemon && !same->from->what->of_daemon)
        *same = one;
}

}  // namespace

match match_line(const cli_tree &tree, int mode, const caller &by, const std::vector<word> &words,
                 std::string_view line) {
    match out;
    std::vector<runner> runners = starters(tree, mode, by);
    if (!race(&runners, words, line, &out)) return out;
    out.result = match_result::incomplete;
    out.word = words.size();
    std::vector<step> steps;
    for (runner &each : runners) {
        steps.clear();
        if (!next_steps(each.what->form, each.at, &steps)) continue;
        out.result = match_result::complete;
        out.what = each.what;
        out.arguments = std::move(each.arguments);
        out.rest = each.rest;
        break;
    }
    return out;
}

std::vector<const token *> next_tokens(const cli_tree &tree, int mode, const caller &by, const std::vector<word> &words,
                                       bool *ends) {
    *ends = false;
    std::vector<candidate> found;
    std::vector<runner> runners = starters(tree, mode, by);
    match stopped;
    if (!race(&runners, words, {}, &stopped)) return {};
    std::vector<step> steps;
    for (const runner &each : runners) {
        if (each.what->privilege >= program_privilege) continue;
        steps.clear();
        *ends = next_steps(each.what->form, each.at, &steps) || *ends;
        for (const step &one : steps) list_once(&found, {&each, one});
    }
    std::vector<const token *> out;
    for (const candidate &each : found) out.push_back(each.taken.what);
    return out;
}

}  // namespace ravo::cli
