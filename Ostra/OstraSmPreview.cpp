// The dry run of the flow state machine.

#include "Ostra/FlowUtil.h"
#include "Ostra/OstraSm.h"
#include "Ostra/private/FlowIndex.h"
#include "Ostra/private/MatchTranslation.h"
#include "Ostra/private/StepTrace.h"

namespace Ostra {

FlowPreview OstraSm::preview(const OstraConfigEntry& entry) const {
  const HashedKey key{entry.flowKey};
  FlowPreview preview;
  preview.name = FlowName{entry.entryHandle}.text();
  preview.entryId = entry.entryId;
  preview.mappedHandle = index_->handle(key);
  preview.countedVrf = index_->vrf(key);
  preview.refusedBefore = index_->refused(key);
  if (!inputs_.cxHwConfig) {
    return preview;
  }
  preview.present = inputs_.cxHwConfig->flowEntry(preview.name);

  class NoEffects final : public Effects {
   public:
    void bookVrf() override {}
    void mapKey() override {}
  };
  NoEffects effects;
  const DryRun dryRun;
  try {
    translate(entry, preview, effects);
    preview.outcome = preview.present == nullptr ? FlowPreview::Outcome::inserts_
                                                 : FlowPreview::Outcome::modifies_;
  } catch (const P4Runtime::P4RuntimeExceptionBase& error) {
    previewRefusal(entry, error, preview);
  } catch (const Korm::RangeException& error) {
    preview.outcome = FlowPreview::Outcome::outOfRange_;
    preview.message = error.what();
  }
  previewEffects(key, entry, preview);
  return preview;
}

void OstraSm::previewRefusal(const OstraConfigEntry& entry,
                             const P4Runtime::P4RuntimeExceptionBase& error, FlowPreview& preview) {
  preview.outcome = FlowPreview::Outcome::refused_;
  preview.message = error.what();
  if (const auto* const own = dynamic_cast<const P4Runtime::EntryErrorException*>(&error)) {
    preview.code = own->code();
  }
  if (preview.step == FlowStep::matchFields_) {
    preview.field = refusedField(entry.flowKey);
  } else if (preview.step == FlowStep::group_) {
    // This is the only step of the translation that is still missing.
    maybeUpdateFlowMatch(preview.tableType, preview.priorityGroupType, preview.match);
  }
}

void OstraSm::previewEffects(const HashedKey& key, const OstraConfigEntry& entry,
                             FlowPreview& preview) const {
  if (preview.step > FlowStep::bookVrf_) {
    preview.vrf = vrfChange(key, entry.vrfGiven, entry.vrfId);
    preview.vrf.lastUser = preview.vrf.released && isLastUser(*preview.vrf.released);
    preview.vrf.firstUser = preview.vrf.taken && isFirstUser(*preview.vrf.taken);
  }
  if (preview.step >= FlowStep::group_ && preview.actions.has(OpenFlowTable::Action::group_)) {
    preview.group = groupNeed(preview.actions.group());
  }
}

}  // namespace Ostra
