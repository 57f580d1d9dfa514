// Memory and look-ups by the size of the set.
#include "bench/Competition.h"
#include "bench/Sections.h"

#include <fstream>
#include <iostream>

namespace npbench {

namespace {

constexpr std::size_t STRUCTURES = 3;
constexpr std::array<PeerMaker, STRUCTURES> MAKERS = {makeOurs, makeAbsl, makeAbslPacked};
constexpr double ROOM_BESIDE = 1.0 * (1ULL << 30); // queries, and what filling needs for a while

std::vector<Competition::Column> columns() {
    return {{"hit", QueryKind::HIT, false},
            {"fall-back", QueryKind::FALL_BACK, false},
            {"hit in a batch", QueryKind::HIT, true}};
}

class Scale {
  public:
    Scale(Settings const& settings, std::ostream& out) : settingsM(settings), outM(out) {}

    void step(std::uint64_t numbers) {
        DataOptions options = settingsM.data;
        options.numbers = numbers;
        std::cerr << "generating " << numbers << " numbers\n";
        Json const result = inOwnProcess(settingsM.mostBytes, [&] { return measure(PortabilityData(options)); });
        printTable(outM, result["table"], false);
        stepsM.push_back(result);
    }

    Json tables() const {
        Json tables = Json::array();
        for (Json const& step : stepsM)
            tables.push_back(step["table"]);
        return tables;
    }

    // A line a size: numbers, then for each structure bytes a number and the times of the columns; ? for nothing.
    void writePlotData(std::string const& file) const {
        std::ofstream out(file);
        out << "# numbers, then of this tree, absl and absl packed: bytes, hit, fall-back, hit in a batch (ns)\n";
        for (Json const& step : stepsM) {
            out << step["numbers"];
            for (Json const& values : step["values"])
                for (Json const& value : values)
                    out << ' ' << (value.is_null() ? std::string("?") : value.dump());
            out << '\n';
        }
        if (!out)
            throw std::runtime_error("cannot write " + file);
    }

  private:
    // Bytes of each structure; 0 for what does not fit.
    std::array<double, STRUCTURES> weighAll(PortabilityData const& data) const {
        std::array<double, STRUCTURES> bytes{};
        for (std::size_t i = 0; i < STRUCTURES; ++i)
            try {
                bytes[i] = weigh(MAKERS[i], data, settingsM.order, settingsM.mostBytes)["bytes"].get<double>();
            } catch (NoRoom const&) {
                std::cerr << MAKERS[i]()->name() << " does not fit\n";
            }
        return bytes;
    }

    Json measure(PortabilityData const& data) const {
        std::array<double, STRUCTURES> const bytes = weighAll(data);
        Competition competition(data, settingsM.order, settingsM.queries, columns());
        double room = static_cast<double>(settingsM.mostBytes - ownBytes()) - ROOM_BESIDE;
        std::array<bool, STRUCTURES> entered{};
        for (std::size_t i = 0; i < STRUCTURES; ++i) {
            if (bytes[i] == 0 || bytes[i] > room)
                continue;
            room -= bytes[i];
            competition.enter(MAKERS[i]);
            entered[i] = true;
        }
        competition.run(settingsM.rounds);
        return result(competition, data, bytes, entered);
    }

    static Json result(Competition const& competition, PortabilityData const& data,
                       std::array<double, STRUCTURES> const& bytes, std::array<bool, STRUCTURES> const& entered) {
        std::uint64_t const numbers = data.options().numbers;
        auto const keys = static_cast<double>(data.keys().size());
        Json table = competition.table("scale", std::to_string(numbers) + " numbers");
        table["columns"].push_back("bytes a number");
        Json values = Json::array();
        std::size_t row = 0;
        for (std::size_t i = 0; i < STRUCTURES; ++i) {
            Json line = {bytes[i] == 0 ? Json() : Json(bytes[i] / keys), Json(), Json(), Json()};
            if (entered[i]) {
                Json& cells = table["rows"][row++]["cells"];
                for (std::size_t column = 0; column < cells.size(); ++column)
                    line[column + 1] = cells[column]["value"];
                cells.push_back(cell(bytes[i] / keys, "B"));
            }
            values.push_back(line);
        }
        return {{"numbers", numbers}, {"table", table}, {"values", values}};
    }

    Settings const& settingsM;
    std::ostream& outM;
    std::vector<Json> stepsM;
};

} // namespace

Json runScale(Settings const& settings, std::ostream& out) {
    Scale scale(settings, out);
    for (std::uint64_t const numbers : settings.scale)
        scale.step(numbers);
    if (!settings.plotData.empty())
        scale.writePlotData(settings.plotData);
    return scale.tables();
}

} // namespace npbench
