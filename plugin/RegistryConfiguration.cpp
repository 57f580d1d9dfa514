// Start-up configuration from the registry, the file checks, and the request for the event handler's name.
#include "plugin/Guarded.h"
#include "plugin/PlugIn.h"
#include "store/NumberPortabilityTree.h"

namespace DAT::NumberPortability {

BAS::String const PlugIn::registryFileNameCM("FileName");
BAS::String const PlugIn::registryCountryCodeCM("CountryCode");
BAS::String const PlugIn::registryNationalAccessCodeCM("NationalAccessCode");
BAS::String const PlugIn::registryInternationalAccessCodeCM("InternationalAccessCode");
BAS::String const PlugIn::registryInternationalAccessCodeSignCM("InternationalAccessCodeSign");
BAS::String const PlugIn::registrySearchMethodCM("SearchMethod");
BAS::String const PlugIn::registryReloadCM("Reload");
BAS::String const PlugIn::registryAdditionalNumPortDataCM("AdditionalNumPortData");
BAS::String const PlugIn::registryPrintDataCM("PrintData");
BAS::String const PlugIn::registryReuseOnFailureCM("ReuseOnFailure");
BAS::String const PlugIn::defaultInternationalAccessCodeCM("00");
BAS::String const PlugIn::defaultInternationalAccessCodeSignCM("+");

namespace {

BAS::String valueOr(BAS::RegistryEntry const& subtree, BAS::String const& key, BAS::String const& fallback) {
    BAS::RegistryEntry const* const entry = subtree.find(key);
    return entry == nullptr ? fallback : entry->value();
}

} // namespace

bool PlugIn::readRegistry() {
    return guarded([this] { return configure(); });
}

bool PlugIn::configure() {
    // An invalid object reads no keys, but its file is checked and reported on all the same.
    return isValid() ? readKeys() && checkFile() : checkFile();
}

bool PlugIn::readKeys() {
    BAS::RegistryEntry const* const subtree = registry();
    if (subtree == nullptr) {
        report("ERR_REG_SUBTREE_NOT_FOUND", BAS::Status::CRITICAL, {name()});
        return false;
    }
    // The first key that is missing ends it: one report, as operators know it, and not three.
    if (!readMandatory(*subtree, registryFileNameCM, fileNameM) ||
        !readMandatory(*subtree, registryCountryCodeCM, countryCodeM) ||
        !readMandatory(*subtree, registryNationalAccessCodeCM, nationalAccessCodeM))
        return false;
    internationalAccessCodeM = valueOr(*subtree, registryInternationalAccessCodeCM, defaultInternationalAccessCodeCM);
    internationalAccessCodeSignM =
        valueOr(*subtree, registryInternationalAccessCodeSignCM, defaultInternationalAccessCodeSignCM);
    return readSearchMethod(*subtree);
}

bool PlugIn::readMandatory(BAS::RegistryEntry const& subtree, BAS::String const& key, BAS::String& value) {
    BAS::RegistryEntry const* const entry = subtree.find(key);
    if (entry == nullptr) {
        report("ERR_REG_NAME_NOT_FOUND", BAS::Status::CRITICAL, {keyPath(key)});
        return false;
    }
    value = entry->value();
    return true;
}

bool PlugIn::readSearchMethod(BAS::RegistryEntry const& subtree) {
    BAS::RegistryEntry const* const entry = subtree.find(registrySearchMethodCM);
    if (entry != nullptr && !entry->value().toNum(searchMethodM)) {
        BAS::Status::Arguments arguments{keyPath(registrySearchMethodCM)};
        if (!entry->value().empty())
            arguments.append(entry->value());
        report("ERR_REG_VALUE_INVALID", BAS::Status::CRITICAL, arguments);
        return false;
    }
    // What is no number is refused. Another number is the default here; a tree would take it for the shortest prefix.
    if (searchMethodM != NumberPortabilityTree::EXACT_MATCH && searchMethodM != NumberPortabilityTree::ANY_PREFIX_MATCH)
        searchMethodM = defaultSearchMethodCM;
    return true;
}

BAS::String PlugIn::keyPath(BAS::String const& key) const {
    return name() + "." + key;
}

bool PlugIn::checkFile() {
    Opening const opening = tryOpen(fileNameM, false);
    fileOkM.store(opening.opens);
    return reportOpening(opening, fileNameM);
}

// Of an additional file, which has no say in whether the plug-in is usable.
bool PlugIn::checkFile(BAS::String const& fileName) {
    return reportOpening(tryOpen(fileName, true), fileName);
}

PlugIn::Opening PlugIn::tryOpen(BAS::String const& fileName, bool keepOpen) {
    // The framework's thread and the worker may check at once, with the one reader. No report is made under the lock.
    BAS::MutexGuard const guard(fileLockM);
    bool const called = fileIoM.openFile(fileName, STR::FileIoTurbo::readModeCM);
    bool const opens = called && fileIoM.isOpen();
    // An additional file stays open until its load is over, when the closing is reported.
    if (called && !keepOpen)
        fileIoM.closeFile();
    return {called, opens};
}

bool PlugIn::reportOpening(Opening const& opening, BAS::String const& fileName) {
    if (opening.opens)
        report("INF_FILE_OPENED", BAS::Status::NORMAL, {fileName});
    else
        report(opening.called ? "ERR_OPEN_FILE_FAILED" : "ERR_FILE_NOT_FOUND", BAS::Status::MAJOR, {fileName});
    return opening.opens;
}

void PlugIn::closeCheckedFile() {
    BAS::String fileName;
    {
        BAS::MutexGuard const guard(fileLockM);
        if (!fileIoM.isOpen())
            return;
        // Copied, because the next check may replace it before the report is made.
        fileName = fileIoM.fileName();
        fileIoM.closeFile();
    }
    report("INF_FILE_CLOSED", BAS::Status::NORMAL, {fileName});
}

bool PlugIn::evalEnvironment() {
    guarded([this] { return askForEventHandler(); });
    return true;
}

// Whatever becomes of the request, and whatever the root object throws, the plug-in does without the name.
bool PlugIn::askForEventHandler() {
    shielded([this] {
        BAS::Message request(name(), rootNameCM, "REQ_EVENTHANDLER_NAME", BAS::NULL_STRING);
        if (sendRequest(request) && request.arguments().length() == 1)
            eventHandlerNameM = request.arguments()[0];
        return true;
    });
    return true;
}

} // namespace DAT::NumberPortability
