#include "host/module/Explanation.h"

#include "host/base/Instant.h"
#include "host/base/Text.h"

#include <algorithm>

namespace nphost {

namespace {

using DAT::NumberPortability::StoredPrefix;

enum Method : unsigned int { BEST = 0, EXACT = 1 }; // any other is the shortest prefix

// The newest record that has begun; a history is newest first.
Explanation::Record const* recordAt(StoredPrefix const& prefix, BAS::DateTime at) {
    auto const found = std::partition_point(prefix.history.begin(), prefix.history.end(),
                                            [at](auto const& record) { return record.validFromM > at; });
    return found == prefix.history.end() ? nullptr : &*found;
}

std::string notYet(StoredPrefix const& prefix) {
    return prefix.key.str() + " is stored, but its first record begins only at " +
           readable(prefix.history.back().validFromM);
}

} // namespace

Explanation::Explanation(Prefixes const& prefixes, BAS::String const& number) : prefixesM(prefixes) {
    // The tree knows digits only: keys are compared with these.
    std::copy_if(number.view().begin(), number.view().end(), std::back_inserter(digitsM), isDigit);
}

// Where the method begins to ask; only the best match goes on to shorter prefixes.
Explanation::Prefixes::const_iterator Explanation::firstAsked(unsigned int method) const {
    if (prefixesM.empty() || method == BEST)
        return prefixesM.begin();
    if (method == EXACT)
        return prefixesM.front().key.str() == digitsM ? prefixesM.begin() : prefixesM.end();
    return prefixesM.end() - 1;
}

Explanation::Choice Explanation::choose(unsigned int method, BAS::DateTime at) const {
    for (auto prefix = firstAsked(method); prefix != prefixesM.end(); ++prefix) {
        if (Record const* const record = recordAt(*prefix, at))
            return {&*prefix, record};
        // The other methods ask one prefix and no other, be its records still to come.
        if (method != BEST)
            break;
    }
    return {};
}

std::string Explanation::bestReason(Choice const& choice) const {
    if (choice.record == nullptr)
        return "no stored prefix has a record that has begun";
    std::string text = choice.prefix->key.str() + (choice.prefix->key.str() == digitsM
                                                       ? " is the number itself"
                                                       : " is the longest stored prefix with a record that has begun");
    // Why not the longest: what people ask about.
    if (choice.prefix != &prefixesM.front())
        text += "; " + notYet(prefixesM.front());
    return text;
}

std::string Explanation::reason(unsigned int method, BAS::DateTime at) const {
    if (prefixesM.empty())
        return "no prefix of the number is stored";
    Choice const choice = choose(method, at);
    if (method == BEST)
        return bestReason(choice);
    auto const asked = firstAsked(method);
    if (asked == prefixesM.end())
        return "the number itself is not stored";
    if (choice.record == nullptr)
        return notYet(*asked);
    return asked->key.str() + (method == EXACT ? " is the number itself" : " is the shortest stored prefix");
}

// A choice can change only where a record begins, so these instants, in order, are all that need be tried.
std::optional<Explanation::Change> Explanation::nextChange(unsigned int method, BAS::DateTime after) const {
    std::vector<BAS::DateTime> instants;
    for (StoredPrefix const& prefix : prefixesM)
        for (auto record = prefix.history.begin(); record != prefix.history.end() && record->validFromM > after;
             ++record)
            instants.push_back(record->validFromM);
    std::sort(instants.begin(), instants.end());
    instants.erase(std::unique(instants.begin(), instants.end()), instants.end());
    // Most instants change nothing for the method: a shorter prefix's record, or one of the same choice.
    Choice const now = choose(method, after);
    for (BAS::DateTime const at : instants)
        if (Choice const then = choose(method, at); then != now)
            return Change{at, then};
    return std::nullopt;
}

Explanation::Choice Explanation::range(BAS::DateTime at) const {
    for (StoredPrefix const& prefix : prefixesM)
        if (prefix.key.length() < digitsM.size())
            if (Record const* const record = recordAt(prefix, at))
                return {&prefix, record};
    return {};
}

std::optional<bool> Explanation::ported(unsigned int method, BAS::DateTime at) const {
    Choice const chosen = choose(method, at);
    Choice const block = range(at);
    if (chosen.record == nullptr || block.record == nullptr || chosen.prefix->key.length() < block.prefix->key.length())
        return std::nullopt;
    return !(chosen.record->networkIdM == block.record->networkIdM);
}

} // namespace nphost
