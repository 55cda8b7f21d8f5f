#include "nvoutputconfiguration.h"

bool nvOutputConfigurationToWire(const NvOutputConfigurationArray& config, NvByteArray& out)
{
    if (config.size() > NvOutputConfigurationMaxRecords)
        return false;
    out.clear();
    out.reserve(config.size() * NvOutputConfigurationRecordSize);
    for (const NvOutputConfiguration& record : config) {
        nvbe::appendU16(out, record.dataIdentifier);
        nvbe::appendU16(out, record.frequency);
    }
    return true;
}

NvByteArray nvOutputConfigurationToWire(const NvOutputConfigurationArray& config)
{
    NvByteArray out;
    nvOutputConfigurationToWire(config, out);
    return out;
}

bool nvOutputConfigurationFromWire(const uint8_t* data, size_t size,
                                   NvOutputConfigurationArray& out)
{
    if (size % NvOutputConfigurationRecordSize != 0 ||
        size / NvOutputConfigurationRecordSize > NvOutputConfigurationMaxRecords)
        return false;
    out.clear();
    for (size_t i = 0; i < size; i += NvOutputConfigurationRecordSize)
        out.emplace_back(nvbe::readU16(data + i), nvbe::readU16(data + i + 2));
    return true;
}

const NvOutputConfiguration* nvFindOutput(const NvOutputConfigurationArray& config,
                                          NvDataIdentifier quantity)
{
    for (const NvOutputConfiguration& record : config)
        if (nvQuantity(record.dataIdentifier) == nvQuantity(quantity))
            return &record;
    return nullptr;
}
