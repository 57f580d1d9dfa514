// A database table in memory, by number and instant; a prepared query for each stored length, longest first.
#include "bench/peers/Peer.h"
#include "bench/peers/Records.h"

#include <sqlite3.h>
#include <stdexcept>

namespace npbench {

namespace {

class Sqlite : public PeerOf<Sqlite> {
  public:
    Sqlite() {
        expect(sqlite3_open_v2(":memory:", &databaseM, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                               nullptr),
               SQLITE_OK);
    }
    ~Sqlite() override {
        sqlite3_finalize(queryM);
        sqlite3_close(databaseM);
    }

    char const* name() const override { return "SQLite in memory"; }
    std::size_t slowness() const override { return 32; }

    void fill(PortabilityData const& data, Order order) override {
        lengthsM = data.keyLengths();
        run("CREATE TABLE portability(number TEXT, since INTEGER, network TEXT, PRIMARY KEY(number, since DESC)) "
            "WITHOUT ROWID");
        run("BEGIN");
        sqlite3_stmt* const insert = prepare("INSERT INTO portability VALUES(?1, ?2, ?3)");
        data.visit(order, [&](Key key) { insertAll(insert, data, key); });
        sqlite3_finalize(insert);
        run("COMMIT");
        queryM = prepare("SELECT since, network FROM portability WHERE number = ?1 AND since <= ?2 "
                         "ORDER BY since DESC LIMIT 1");
    }

    bool find(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out) {
        for (unsigned const length : lengthsM)
            if (length <= number.length() && findKey(number.view().substr(0, length), at, out))
                return true;
        return false;
    }

  private:
    static void expect(int result, int wanted) {
        if (result == SQLITE_NOMEM)
            throw std::bad_alloc();
        if (result != wanted)
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errstr(result));
    }
    void run(char const* statement) {
        expect(sqlite3_exec(databaseM, statement, nullptr, nullptr, nullptr), SQLITE_OK);
    }
    sqlite3_stmt* prepare(char const* text) {
        sqlite3_stmt* statement = nullptr;
        expect(sqlite3_prepare_v2(databaseM, text, -1, &statement, nullptr), SQLITE_OK);
        return statement;
    }
    static void bind(sqlite3_stmt* statement, int position, std::string_view text) {
        expect(sqlite3_bind_text(statement, position, text.data(), static_cast<int>(text.size()), SQLITE_STATIC),
               SQLITE_OK);
    }

    static void insertAll(sqlite3_stmt* insert, PortabilityData const& data, Key key) {
        BAS::String const number = key.text();
        History const history = data.history(key);
        for (unsigned i = 0; i < history.count; ++i) {
            bind(insert, 1, number.view());
            expect(sqlite3_bind_int64(insert, 2, std::int64_t(history.records[i].validFrom.seconds())), SQLITE_OK);
            bind(insert, 3, data.networks()[history.records[i].network].view());
            expect(sqlite3_step(insert), SQLITE_DONE);
            sqlite3_reset(insert);
        }
    }

    bool findKey(std::string_view key, BAS::DateTime at, NumberPortabilityData& out) {
        bind(queryM, 1, key);
        expect(sqlite3_bind_int64(queryM, 2, std::int64_t(at.seconds())), SQLITE_OK);
        bool const found = sqlite3_step(queryM) == SQLITE_ROW;
        if (found) {
            out.validFromM = std::bit_cast<BAS::DateTime>(sqlite3_column_int64(queryM, 0));
            out.networkIdM = BAS::SimpleString(reinterpret_cast<char const*>(sqlite3_column_text(queryM, 1)));
        }
        sqlite3_reset(queryM);
        return found;
    }

    sqlite3* databaseM = nullptr;
    sqlite3_stmt* queryM = nullptr;
    std::vector<unsigned> lengthsM;
};

} // namespace

std::unique_ptr<Peer> makeSqlite() {
    return std::make_unique<Sqlite>();
}

} // namespace npbench
