// SPDX-License-Identifier: Apache-2.0
// Fuzz harness of the configuration file parser: each input is the
// content of a configuration file, read and parsed as the library reads
// /system/etc/orvane.pb.  A file the parser refuses is a status and a log
// line, never a crash; whatever it accepts can be walked.
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "msg_config.h"
#include "msg_config.pb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t Size)
{
    static const std::string Path = "/tmp/orvane-fuzz-config-" + std::to_string(getpid()) + ".pb";
    FILE *pFile = fopen(Path.c_str(), "wb");
    if (pFile == nullptr)
        return 0;
    fwrite(pData, 1, Size, pFile);
    fclose(pFile);
    OrvaneCfg Cfg;
    if (MSG_LoadConfigUnconditionally(Path.c_str(), &Cfg) == MSG_OK)
        for (const Endpoint &Entry : Cfg.endpoint())
            (void)(Entry.name().size() + (Entry.has_link() ? Entry.link().size() : 0));
    unlink(Path.c_str());
    return 0;
}
