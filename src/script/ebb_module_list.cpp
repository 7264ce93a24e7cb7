#include "script/ebb_module_list.h"

namespace fwforge {

EbbOffer AddEbbModule(BuildDescription& description, const ModuleEntry& record) {
    // The whole text must match: "EBB2" names a non-critical block, not the EBB.
    if (record.RomRegion != "EBB") return EbbOffer::NotTaken;
    if (description.EbbModuleList.size() >= kMaxEbbModules) return EbbOffer::ListFull;

    // Only what the Extended Boot Block uses travels; start addresses, links and the
    // contiguity flag have no meaning there. The rest of the header image stays zero
    // until the EBB is built.
    EbbModuleRecord ebb;
    ebb.FileName = record.FileName;
    ebb.MaxModuleSize = record.MaxModuleSize;
    ebb.CompressionFlags = record.CompressionFlags;
    ebb.Alignment = record.Alignment;
    ebb.Header.SetModuleId(record.Header.ModuleId());
    ebb.Header.SetModuleAttributes(record.Header.ModuleAttributes());
    ebb.Header.SetDestOffset(record.Header.DestOffset());
    ebb.Header.SetDestSegment(record.Header.DestSegment());
    description.EbbModuleList.push_back(std::move(ebb));
    return EbbOffer::Taken;
}

}  // namespace fwforge
