#include "recorded.h"

#include <algorithm>
#include <expat.h>
#include <fstream>
#include <iomanip>
#include <set>
#include <sstream>

#include "agent_discover.h"
#include "agent_sources.h"
#include "agent_status.h"
#include "config_network.h"

namespace fs = std::filesystem;

constexpr std::string_view current_prefix = "current:";

std::vector<call_t> recorded_calls()
{
    std::vector<call_t> calls;
    const fs::directory_iterator first{HOSTS}, last;
    for (const fs::path &host : std::set<fs::path>(first, last)) { // in the same order everywhere
        std::ifstream file{host / "calls"};
        for (std::string line; std::getline(file, line);) {
            std::istringstream words{line};
            call_t call{host, "", "", "", 0, false};
            if (words >> call.label >> call.status >> call.function && call.label[0] != '#') {
                std::getline(words.ignore(), call.arguments);
                call.current = call.function.starts_with(current_prefix);
                call.function.erase(0, call.current ? current_prefix.size() : 0);
                calls.push_back(call);
            }
        }
    }
    return calls;
}

std::string name_of(const testing::TestParamInfo<call_t> &call)
{
    std::string name = call.param.host.filename().string() + "_" + call.param.label;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !isalnum(c); }, '_');
    return name;
}

void load(const call_t &call)
{
    EXPECT_EQ(simhost_load((call.host / "host").c_str()), 0);
}

int run(const call_t &call)
{
    conn_free(&the_connection);
    global_source_state = call.current;
    new_conn();
    if (call.function == "unique_id")
        return agent_unique_id(new_conn());
    if (call.function == "discover_hardware")
        return agent_discover_hardware(new_conn());
    if (call.function == "discover_network") {
        int indent = 0;
        OrigIpString[0] = OrigMaskString[0] = '\0'; // what a failed call before has left
        std::istringstream words{call.arguments};
        words >> indent >> std::setw(sizeof OrigIpString) >> OrigIpString >>
            std::setw(sizeof OrigMaskString) >> OrigMaskString;
        return agent_discover_network(indent);
    }
    if (call.function == "status")
        return agent_status(new_conn(), call.arguments.c_str());
    ADD_FAILURE() << "unknown function " << call.function;
    return -1;
}

std::string expected(const call_t &call, const char *suffix)
{
    std::ifstream file{call.host / (call.label + suffix)};
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "(null)";
}

std::string xml_error(std::string_view response)
{
    response.remove_prefix(std::min(response.find('<'), response.size()));
    std::string document{response};
    if (!response.starts_with("<?xml"))
        document = "<all>" + document + "</all>";
    const XML_Parser parser = XML_ParserCreate("ISO-8859-1"); // a name may hold any byte
    const bool parsed =
        XML_Parse(parser, document.data(), static_cast<int>(document.size()), 1) == XML_STATUS_OK;
    const char *const error = parsed ? "" : XML_ErrorString(XML_GetErrorCode(parser));
    XML_ParserFree(parser);
    return error;
}

long open_descriptors()
{
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}
