// A static trie that gives every stored prefix of a number an index, and the histories in an array by that index.
#include "bench/peers/Peer.h"
#include "bench/peers/Records.h"

#include <marisa.h>

namespace npbench {

namespace {

class Marisa : public PeerOf<Marisa> {
  public:
    char const* name() const override { return "marisa-trie (static)"; }
    std::size_t slowness() const override { return 8; }

    void fill(PortabilityData const& data, Order /*order: a static trie has none*/) override {
        buildTrie(data);
        listsM = std::vector<NumberPortabilityList>(trieM.size());
        data.visit(Order::SORTED, [&](Key key) {
            BAS::String const number = key.text();
            agentM.set_query(number.data(), number.length());
            if (!trieM.lookup(agentM))
                throw std::runtime_error("a key went missing");
            fillList(listsM[agentM.key().id()], data, data.history(key));
        });
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) {
        std::array<std::size_t, 32> found;
        std::size_t count = 0;
        agentM.set_query(number.data(), number.length());
        while (count < found.size() && trieM.common_prefix_search(agentM))
            found[count++] = agentM.key().id();
        while (count > 0)
            if (listsM[found[--count]].search(at, out))
                return true;
        return false;
    }

  private:
    void buildTrie(PortabilityData const& data) {
        marisa::Keyset keys;
        data.visit(Order::SORTED, [&](Key key) {
            BAS::String const number = key.text();
            keys.push_back(number.data(), number.length());
        });
        try {
            trieM.build(keys);
        } catch (marisa::Exception const& failure) {
            if (failure.error_code() == MARISA_MEMORY_ERROR)
                throw std::bad_alloc();
            throw;
        }
    }

    marisa::Trie trieM;
    marisa::Agent agentM;
    std::vector<NumberPortabilityList> listsM;
};

} // namespace

std::unique_ptr<Peer> makeMarisa() {
    return std::make_unique<Marisa>();
}

} // namespace npbench
