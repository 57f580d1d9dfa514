// A memory-mapped B+ tree in a temporary folder, from the number's text to its records; every stored length is asked,
// longest first, all within one read transaction.
#include "bench/peers/Peer.h"
#include "bench/peers/Records.h"
#include "tests/TemporaryFolder.h"

#include <cstring>
#include <lmdb.h>
#include <stdexcept>

namespace npbench {

namespace {

class Lmdb : public PeerOf<Lmdb> {
  public:
    Lmdb() {
        expect(mdb_env_create(&environmentM));
        expect(mdb_env_set_mapsize(environmentM, std::size_t{64} << 30)); // address space only
        expect(mdb_env_open(environmentM, folderM.path().c_str(),
                            MDB_NOSYNC | MDB_NOMETASYNC | MDB_NORDAHEAD | MDB_NOLOCK | MDB_NOTLS, 0600));
    }
    ~Lmdb() override {
        mdb_txn_abort(readerM);
        mdb_env_close(environmentM);
    }

    char const* name() const override { return "LMDB"; }
    std::size_t slowness() const override { return 8; }

    // Always sorted: appending is what this structure likes best.
    void fill(PortabilityData const& data, Order /*order*/) override {
        lengthsM = data.keyLengths();
        MDB_txn* writer = nullptr;
        expect(mdb_txn_begin(environmentM, nullptr, 0, &writer));
        expect(mdb_dbi_open(writer, nullptr, 0, &tableM));
        data.visit(Order::SORTED, [&](Key key) { put(writer, data, key); });
        expect(mdb_txn_commit(writer));
        expect(mdb_txn_begin(environmentM, nullptr, MDB_RDONLY, &readerM));
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) {
        for (unsigned const length : lengthsM)
            if (length <= number.length() && findKey(number, length, at, out))
                return true;
        return false;
    }

    std::uint64_t fileBytes() override {
        MDB_envinfo info = {};
        MDB_stat statistics = {};
        expect(mdb_env_info(environmentM, &info));
        expect(mdb_env_stat(environmentM, &statistics));
        return (info.me_last_pgno + 1) * statistics.ms_psize;
    }

  private:
    struct Entry {
        std::uint64_t since;
        char network[8];
    };

    static void expect(int result) {
        if (result != MDB_SUCCESS)
            throw std::runtime_error(std::string("LMDB: ") + mdb_strerror(result));
    }

    void put(MDB_txn* writer, PortabilityData const& data, Key key) const {
        BAS::String const number = key.text();
        History const history = data.history(key);
        std::array<Entry, 4> entries = {};
        for (unsigned i = 0; i < history.count; ++i) {
            std::string_view const network = data.networks()[history.records[i].network].view();
            entries[i].since = history.records[i].validFrom.seconds();
            network.copy(entries[i].network, sizeof entries[i].network - 1);
        }
        MDB_val name = {number.length(), const_cast<char*>(number.data())};
        MDB_val value = {history.count * sizeof(Entry), entries.data()};
        expect(mdb_put(writer, tableM, &name, &value, MDB_APPEND));
    }

    bool findKey(BAS::String const& number, unsigned length, BAS::DateTime at, NumberPortabilityData& out) const {
        MDB_val name = {length, const_cast<char*>(number.data())};
        MDB_val value = {};
        if (mdb_get(readerM, tableM, &name, &value) != MDB_SUCCESS)
            return false;
        for (std::size_t i = 0; i < value.mv_size / sizeof(Entry); ++i) {
            Entry entry;
            std::memcpy(&entry, static_cast<char const*>(value.mv_data) + i * sizeof entry, sizeof entry);
            if (entry.since > at.seconds())
                continue;
            out.validFromM = std::bit_cast<BAS::DateTime>(entry.since);
            out.networkIdM = BAS::SimpleString(entry.network);
            return true;
        }
        return false;
    }

    TemporaryFolder folderM{"npbench"};
    MDB_env* environmentM = nullptr;
    MDB_txn* readerM = nullptr;
    MDB_dbi tableM = 0;
    std::vector<unsigned> lengthsM;
};

} // namespace

std::unique_ptr<Peer> makeLmdb() {
    return std::make_unique<Lmdb>();
}

} // namespace npbench
