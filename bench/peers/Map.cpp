// std::map from the number's text to its history; every stored length is asked, longest first.
#include "bench/peers/Peer.h"
#include "bench/peers/Records.h"

#include <map>

namespace npbench {

namespace {

class Map : public PeerOf<Map> {
  public:
    char const* name() const override { return "std::map"; }
    std::size_t slowness() const override { return 8; }

    void fill(PortabilityData const& data, Order order) override {
        lengthsM = data.keyLengths();
        data.visit(order, [&](Key key) { fillList(mapM[key.text().str()], data, data.history(key)); });
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) const {
        for (unsigned const length : lengthsM) {
            if (length > number.length())
                continue;
            auto const entry = mapM.find(number.view().substr(0, length));
            if (entry != mapM.end() && entry->second.search(at, out))
                return true;
        }
        return false;
    }

  private:
    std::map<std::string, NumberPortabilityList, std::less<>> mapM;
    std::vector<unsigned> lengthsM;
};

} // namespace

std::unique_ptr<Peer> makeMap() {
    return std::make_unique<Map>();
}

} // namespace npbench
