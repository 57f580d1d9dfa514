// The definition of PlugIn::guarded, for the plug-in's own sources.
//
// Purpose: nothing may be thrown to the framework. Threads, errors: none of its own. Complexity: the action's.
#pragma once

#include "plugin/PlugIn.h"

#include <exception>
#include <new>

namespace DAT::NumberPortability {

template <class Action>
bool PlugIn::guarded(Action&& action) noexcept {
    try {
        try {
            return action();
        } catch (std::bad_alloc const&) {
            report("ERR_OUT_OF_MEMORY", BAS::Status::CRITICAL, {name()});
        } catch (std::exception const& error) {
            report("ERR_UNEXPECTED", BAS::Status::CRITICAL, {name(), error.what()});
        } catch (...) {
            report("ERR_UNEXPECTED", BAS::Status::CRITICAL, {name(), "of unknown type"});
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): not even the report could be made
    }
    return false;
}

} // namespace DAT::NumberPortability
