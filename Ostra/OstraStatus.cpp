#include "Ostra/OstraStatus.h"

#include <ostream>
#include <utility>

namespace Ostra {
namespace {

using Korm::StrepReader;

P4Runtime::ErrorCode readErrorCode(StrepReader& reader) {
  return reader.attribute("errorCode", P4Runtime::parseErrorCode);
}

// A number inside the key that is out of range is an error of the attribute "key".
OstraKey readKey(StrepReader& reader) {
  try {
    return reader.attribute("key", [](auto& at, auto stop) { return OstraKey{at, stop}; });
  } catch (const Korm::DeserializationException& error) {
    if (error.attribute() == "key") {
      throw;
    }
    throw Korm::DeserializationException{"key", error.what()};
  }
}

// Writes one attribute from a text that holds its value and nothing else.
template <auto member, auto read>
void write(OstraStatusEntry& entry, const std::string& text) {
  auto current = text.begin();
  StrepReader reader{current, text.end()};
  const auto value = read(reader);
  if (!reader.atEnd()) {
    reader.fail("the end of the value");
  }
  entry.*member = value;
}

constexpr std::array<Korm::GenericAttribute<OstraStatusEntry>, 5> attributes{{
    {"genId", [](const OstraStatusEntry& entry) { return Korm::strep(entry.genId); },
     write<&OstraStatusEntry::genId,
           [](StrepReader& reader) { return reader.unsignedAttribute("genId"); }>},
    {"entryHandle",
     [](const OstraStatusEntry& entry) { return Korm::strep(std::uint64_t{entry.entryHandle}); },
     write<&OstraStatusEntry::entryHandle,
           [](StrepReader& reader) { return reader.unsignedAttribute("entryHandle"); }>},
    {"errorCode",
     [](const OstraStatusEntry& entry) { return P4Runtime::errorCodeText(entry.errorCode); },
     write<&OstraStatusEntry::errorCode, readErrorCode>},
    {"deleted", [](const OstraStatusEntry& entry) { return Korm::strep(entry.deleted); },
     write<&OstraStatusEntry::deleted,
           [](StrepReader& reader) { return reader.boolAttribute("deleted"); }>},
    {"key", [](const OstraStatusEntry& entry) { return entry.key().valueToStrep(); }, nullptr},
}};

}  // namespace

OstraStatusEntry::OstraStatusEntry(std::string::const_iterator& current,
                                   std::string::const_iterator end) {
  StrepReader reader{current, end};
  reader.literal("Value('Ostra::OstraStatusEntry', ** {");
  reader.literal("'genId': ");
  genId = reader.unsignedAttribute("genId");
  reader.literal(", 'entryHandle': ");
  entryHandle = reader.unsignedAttribute("entryHandle");
  reader.literal(", 'errorCode': ");
  errorCode = readErrorCode(reader);
  reader.literal(", 'deleted': ");
  deleted = reader.boolAttribute("deleted");
  reader.literal(", 'key': ");
  key_ = readKey(reader);
  reader.literal("})");
}

std::string OstraStatusEntry::valueToStrep() const {
  std::string text = "Value('Ostra::OstraStatusEntry', ** ";
  const char* separator = "{'";
  for (const auto& attribute : attributes) {
    text.append(separator).append(attribute.name).append("': ").append(attribute.read(*this));
    separator = ", '";
  }
  return text + "})";
}

std::ostream& operator<<(std::ostream& out, const OstraStatusEntry& entry) {
  return out << entry.valueToStrep();
}

std::span<const Korm::GenericAttribute<OstraStatusEntry>>
OstraStatusEntry::genericAttributes() noexcept {
  return attributes;
}

OstraStatusZeroReferencesNotifiee::OstraStatusZeroReferencesNotifiee(OstraStatus& status)
    : status_{status} {
  status.zeroReferencesNotifiees().attach(*this);
}

void OstraStatusZeroReferencesNotifiee::onAttribute() {
  if (const auto& control = status_.tableControl()) {
    control->entityIs(&status_);
    // This destroys the control, and with it its reference to the entity, unless somebody else
    // holds the control.
    status_.tableControlIs(nullptr);
  }
  detach();
}

OstraStatus::OstraStatus(Korm::Name name)
    : NamedEntity{std::move(name)},
      tableIsCount_{counters_.counter("tableIs")},
      tableDelCount_{counters_.counter("tableDel")},
      tableNotifyCount_{counters_.counter("tableNotify")},
      binding_{"table", *this},
      zeroReferencesNotifiee_{*this} {
  tableControlIs(Korm::makePtr<KormVasta::CollectionControl>());
}

// Makes a change, and reports a corruption of this table to the corruption handler. A corruption
// that an observer throws belongs to another table and is passed on.
template <class Change>
void OstraStatus::changeTable(Change change) {
  const auto told = tableNotifyCount_;
  try {
    change(binding_.table());
  } catch (const Vasta::Corruption& corruption) {
    if (tableNotifyCount_ != told) {
      throw;
    }
    binding_.table().reportCorruption(corruption.what());
  }
}

void OstraStatus::tableIs(const OstraStatusEntry& entry) {
  ++tableIsCount_;
  changeTable([&entry](Table& table) { table.is(entry); });
}

OstraStatusEntry OstraStatus::tableDel(const OstraKey& key) {
  ++tableDelCount_;
  OstraStatusEntry removed;
  changeTable([&key, &removed](Table& table) { table.del(key, &removed); });
  return removed;
}

void OstraStatus::tableDelAll() {
  Vasta::Hint hint;
  for (bool more = true; more;) {
    changeTable([this, &hint, &more](Table& table) {
      const OstraStatusEntry* const row = table.next(hint);
      more = row != nullptr;
      if (more) {
        tableDel(OstraKey{row->key()});
      }
    });
  }
}

OstraStatusEntry* OstraStatus::tableEdit(const OstraKey& key) {
  OstraStatusEntry* staging = nullptr;
  changeTable([&key, &staging](Table& table) { staging = table.edit(key); });
  return staging;
}

void OstraStatus::tableCommit(const OstraStatusEntry* entry) {
  ++tableIsCount_;
  changeTable([entry](Table& table) { table.commit(entry); });
}

void OstraStatus::tableNotify(const OstraKey& key) {
  ++tableNotifyCount_;
  notifiees_.notify(key);
}

void OstraStatus::tableNotifyQuiesced(bool quiesced) {
  if (tableControl_) {
    tableControl_->quiescedIs(quiesced);
  }
}

void OstraStatus::tableNotifyMountStatus() {
  if (tableControl_) {
    tableControl_->mountStateIs(binding_.table().mountState());
  }
}

void OstraStatus::tableControlIs(Korm::Ptr<KormVasta::CollectionControl> control) {
  if (tableControl_ == control) {
    return;
  }
  tableControl_ = std::move(control);
  tableNotifyQuiesced(binding_.table().isQuiesced());
  tableNotifyMountStatus();
}

const Korm::Ptr<OstraStatus>& OstraStatusTableColl::ostraStatus(
    std::uint64_t index) const noexcept {
  Korm::assertTrue(index < slots, "a status table slot is less than 16");
  return ostraStatus_[index];
}

void OstraStatusTableColl::ostraStatusIs(std::uint64_t index, Korm::Ptr<OstraStatus> status) {
  Korm::assertTrue(index < slots, "a status table slot is less than 16");
  if (ostraStatus_[index] != status) {
    ostraStatus_[index] = std::move(status);
    ostraStatusNotifiees_.notify(FlowTableIndex{index});
  }
}

Korm::Ptr<OstraStatus> OstraStatusTableColl::ostraStatusDel(std::uint64_t index) {
  Korm::Ptr<OstraStatus> removed = ostraStatus(index);
  ostraStatusIs(index, nullptr);
  return removed;
}

void OstraStatusTableColl::ostraStatusDelAll() {
  for (std::size_t index = 0; index < slots; ++index) {
    ostraStatusIs(index, nullptr);
  }
}

Korm::Ptr<OstraStatus> ostraStatusFactory(Korm::Name name) {
  return Korm::makeActive<OstraStatus>(std::move(name));
}

Korm::Ptr<OstraStatusTableColl> ostraStatusTableCollFactory(Korm::Name name) {
  return Korm::makeActive<OstraStatusTableColl>(std::move(name));
}

Korm::Ptr<OstraStatusInfo> ostraStatusInfoFactory() { return Korm::makeActive<OstraStatusInfo>(); }

}  // namespace Ostra
