// nphost::HttpShared: what the threads of the HTTP front have in common.
//
// Purpose: the settings, the tokens as they were read last, the limits of what may be under way at once.
// Ownership: owns all of it. Threads: any. Errors: making it throws HostError; std::bad_alloc. Complexity: constant.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/http/HttpSettings.h"
#include "host/http/Tokens.h"

#include <memory>
#include <string>

namespace nphost {

class HttpShared {
  public:
    HttpShared(HttpSettings chosen, Digest function, std::string run)
        : settingsM(std::move(chosen)), digestM(function), startedAsM(std::move(run)) {
        if (!settingsM.tokens.empty())
            tokensM = std::make_shared<Tokens const>(Tokens::read(settingsM.tokens));
        certificateScopesM = scopesOf(settingsM.clientScopes);
    }

    HttpSettings const& settings() const { return settingsM; }
    Digest digest() const { return digestM; }
    // Tells the program's runs apart, in entity tags.
    std::string const& startedAs() const { return startedAsM; }
    Scopes certificateScopes() const { return certificateScopesM; }

    // Null where no tokens are configured.
    std::shared_ptr<Tokens const> tokens() const {
        BAS::MutexGuard const guard(lockM);
        return tokensM;
    }
    // The file is read again; what is wrong with it is thrown, and the old ones stay.
    void rereadTokens() {
        if (settingsM.tokens.empty())
            return;
        auto fresh = std::make_shared<Tokens const>(Tokens::read(settingsM.tokens));
        BAS::MutexGuard const guard(lockM);
        tokensM.swap(fresh);
    }

  private:
    HttpSettings const settingsM;
    Digest const digestM;
    std::string const startedAsM;
    Scopes certificateScopesM = 0;
    mutable BAS::Mutex lockM;
    std::shared_ptr<Tokens const> tokensM NP_GUARDED_BY(lockM);
};

} // namespace nphost
