// The number tree as the cache manager uses it, and the same rule upon the trie's plain layout.
#include "bench/peers/Peer.h"
#include "bench/peers/Records.h"
#include "store/NumberPortabilityTree.h"

namespace npbench {

namespace {

using DAT::NumberPortability::LookUpDetail;
using DAT::NumberPortability::NumberPortabilityTree;

template <class Structure>
class OursAs : public PeerOf<Structure> {
  public:
    static constexpr bool batchesCM = true;

    void fill(PortabilityData const& data, Order order) override {
        data.visit(order, [&](Key key) {
            BAS::String const number = key.text();
            History const history = data.history(key);
            for (unsigned i = 0; i < history.count; ++i)
                treeM.insert(number, portabilityData(data, history.records[i]), true);
        });
        treeM.prepare(); // as a load ends
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) const {
        return treeM.search(number, at, out, NumberPortabilityTree::BEST_MATCH);
    }

  protected:
    NumberPortabilityTree treeM;
};

class Ours : public OursAs<Ours> {
  public:
    char const* name() const override { return "this tree"; }

    void findMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                  std::span<NumberPortabilityData> records, std::span<bool> found) const {
        treeM.search(numbers, instants, records, found, NumberPortabilityTree::BEST_MATCH);
    }
};

// Batches by describeMany; single look-ups are those of the tree.
class OursDetailed : public OursAs<OursDetailed> {
  public:
    char const* name() const override { return "this tree, with details"; }

    void findMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                  std::span<NumberPortabilityData> records, std::span<bool> found) {
        treeM.describeMany(numbers, instants, detailsM, NumberPortabilityTree::BEST_MATCH);
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            found[i] = detailsM[i].found();
            records[i] = detailsM[i].record;
        }
    }

  private:
    std::array<LookUpDetail, batchCM> detailsM;
};

class Plain : public PeerOf<Plain> {
  public:
    char const* name() const override { return "plain layout"; }

    void fill(PortabilityData const& data, Order order) override {
        data.visit(order, [&](Key key) {
            auto list = std::make_unique<NumberPortabilityList>();
            fillList(*list, data, data.history(key));
            trieM.insert(key.text(), list.get());
            static_cast<void>(list.release()); // the trie's from here on
        });
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) const {
        PBC::PtrTree<NumberPortabilityList>::FoundStack found;
        trieM.search(number, found);
        while (!found.isEmpty())
            if (found.pop()->search(at, out))
                return true;
        return false;
    }

  private:
    PBC::PtrTree<NumberPortabilityList> trieM;
};

} // namespace

std::unique_ptr<Peer> makeOurs() {
    return std::make_unique<Ours>();
}

std::unique_ptr<Peer> makeOursDetailed() {
    return std::make_unique<OursDetailed>();
}

std::unique_ptr<Peer> makePlain() {
    return std::make_unique<Plain>();
}

} // namespace npbench
