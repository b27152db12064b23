// SPDX-License-Identifier: Apache-2.0
// orvane config: the endpoint configuration in protobuf text format, to and
// from the binary file the library reads (/system/etc/orvane.pb).  Text
// format is protobuf's own; the classes are generated from the library's
// schema for the full runtime, which text format needs.
#include <map>
#include <memory>

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include "cli.h"
#include "msg_config.pb.h"

namespace cli {
namespace {

// Collects the parser's complaints as "FILE:LINE:COLUMN: what".
class ErrorLines : public google::protobuf::io::ErrorCollector {
public:
    explicit ErrorLines(const std::string &Path) : mPath(Path) {}
    void AddError(int Line, int Column, const std::string &Message) override
    {
        mText += (mText.empty() ? "" : "\n") + mPath + ":" + std::to_string(Line + 1) + ":" +
                 std::to_string(Column + 1) + ": " + Message;
    }
    const std::string &Text() const { return mText; }

private:
    std::string mPath;
    std::string mText;
};

void jCompile(const std::string &In, const std::string &Out)
{
    const std::string Text = ReadFile(In);
    OrvaneCfg Cfg;
    ErrorLines Errors(In);
    google::protobuf::TextFormat::Parser Parser;
    Parser.RecordErrorsTo(&Errors);
    if (!Parser.ParseFromString(Text, &Cfg))
        throw Failure(Errors.Text().empty() ? In + ": not an endpoint configuration" : Errors.Text());
    std::map<std::string, int> Seen;
    for (const Endpoint &E : Cfg.endpoint())
        if (Seen[E.name()]++ == 1)
            fprintf(stderr, "orvane: warning: \"%s\" is configured more than once; the first entry wins\n",
                    E.name().c_str());
    WriteFile(Out, Cfg.SerializeAsString());
    printf("%d endpoints written to %s\n", Cfg.endpoint_size(), Out.c_str());
}

void jShow(const std::string &Path)
{
    const std::string Bytes = ReadFile(Path);
    OrvaneCfg Cfg;
    if (!Cfg.ParseFromString(Bytes))
        throw Failure(Path + " is not an endpoint configuration: it does not parse as OrvaneCfg, or an endpoint "
                             "lacks its name (`orvane config compile` makes one from text)");
    std::string Text;
    google::protobuf::TextFormat::PrintToString(Cfg, &Text);
    fputs(Text.c_str(), stdout);
}

} // namespace

void AddConfigCommands(CLI::App &App)
{
    auto *pConfig = App.add_subcommand("config", "The endpoint configuration file, to and from protobuf text format");
    pConfig->require_subcommand(1);
    pConfig->footer("Text format, one entry per endpoint reached through a link:\n"
                    "  endpoint { name: \"weather-server\" link: \"lnk1\" }\n"
                    "The library reads the binary file from /system/etc/orvane.pb.");

    auto Paths = std::make_shared<std::pair<std::string, std::string>>();
    auto *pCompile = pConfig->add_subcommand("compile", "Compile IN (text format) into OUT (the binary file)");
    pCompile->add_option("IN", Paths->first, "The text-format configuration")->required();
    pCompile->add_option("OUT", Paths->second, "The binary file to write")->required();
    pCompile->callback([Paths] { jCompile(Paths->first, Paths->second); });

    auto Shown = std::make_shared<std::string>();
    auto *pShow = pConfig->add_subcommand("show", "Print a binary configuration FILE in text format");
    pShow->add_option("FILE", *Shown, "The binary file")->required();
    pShow->callback([Shown] { jShow(*Shown); });
}

} // namespace cli
