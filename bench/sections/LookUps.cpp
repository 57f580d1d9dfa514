// Look-ups and memory of all structures, and look-ups in a small set that stays in the processor's caches.
#include "bench/Competition.h"
#include "bench/Sections.h"

#include <iostream>

namespace npbench {

namespace {

constexpr std::uint64_t SMALL_SET = 20'000;

// Fills one structure in this process, which has held none before.
Json fillOne(PeerMaker maker, PortabilityData const& data, Order order) {
    std::uint64_t const before = ownBytes();
    std::unique_ptr<Peer> const peer = maker();
    std::cerr << "weighing " << peer->name() << '\n';
    auto const begin = std::chrono::steady_clock::now();
    peer->fill(data, order);
    double const seconds = secondsSince(begin);
    std::uint64_t const bytes = ownBytes() - before + peer->fileBytes();
    return {{"seconds", seconds}, {"bytes", bytes}, {"name", peer->name()}};
}

double bytesPerNumber(Json const& weighed, PortabilityData const& data) {
    return weighed["bytes"].get<double>() / static_cast<double>(data.keys().size());
}

} // namespace

Json weigh(PeerMaker maker, PortabilityData const& data, Order order, std::uint64_t mostBytes) {
    return inOwnProcess(mostBytes, [&] { return fillOne(maker, data, order); });
}

Json measureMemory(Ground const& ground) {
    Table table("memory", "Memory and filling, each in a process of its own",
                {"bytes a number", "of absl", "seconds to fill"});
    std::vector<Json> weighed;
    double reference = 0;
    for (PeerMaker const maker : allPeers()) {
        try {
            weighed.push_back(weigh(maker, ground.data(), ground.settings().order, ground.settings().mostBytes));
        } catch (NoRoom const&) {
            table.addNote(std::string(maker()->name()) + " is left out: memory did not suffice.");
            continue;
        }
        if (weighed.back()["name"] == "absl::flat_hash_map")
            reference = bytesPerNumber(weighed.back(), ground.data());
    }
    for (Json const& one : weighed) {
        double const bytes = bytesPerNumber(one, ground.data());
        table.addRow(one["name"], {cell(bytes, "B"), reference == 0 ? Json() : cell(bytes / reference, "x"),
                                   cell(one["seconds"].get<double>(), "s")});
    }
    table.addNote(
        "Growth of the process's own resident memory by stored number or prefix; LMDB's is the used part of its file.");
    return Json::array({table.json()});
}

Json measureLookUps(Ground const& ground) {
    Settings const& settings = ground.settings();
    Competition competition(ground.data(), settings.order, settings.queries, Competition::allColumns());
    for (PeerMaker const maker : allPeers())
        competition.enter(maker);
    competition.enter(makeOursDetailed);
    competition.run(settings.rounds);
    return Json::array({competition.table("look-ups", "Best-match look-ups")});
}

Json measureSmallSet(Ground const& ground) {
    Settings const& settings = ground.settings();
    DataOptions options = settings.data;
    options.numbers = SMALL_SET;
    PortabilityData const data(options);
    Competition competition(data, settings.order, settings.queries,
                            {{"hit", QueryKind::HIT, false}, {"fall-back", QueryKind::FALL_BACK, false}});
    for (PeerMaker const maker : {makeOurs, makeAbsl, makeAbslPacked, makePlain})
        competition.enter(maker);
    competition.run(settings.rounds);
    return Json::array({competition.table("small", "Best-match look-ups among 20,000 numbers")});
}

} // namespace npbench
