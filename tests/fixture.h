/** What the function tests share: a fresh record and host for every test. */
#pragma once

#include <gtest/gtest.h>
#include <string>

#include "agent_common.h"
#include "agent_files.h"
#include "agent_handles.h"
#include "agent_sources.h"
#include "agent_text.h"
#include "fault_plan.h"
#include "simhost/simhost.h"

using namespace zorvik;

class HostTest : public testing::Test
{
protected:
    ~HostTest() override
    {
        simhost_unload();
        conn_free(&the_connection);
        global_debug_state = 0;
        global_source_state = 0;
    }
};

inline std::string text(const char *string)
{
    return string ? string : "(null)";
}

inline std::string response()
{
    return text(the_connection.response);
}

inline std::string logged()
{
    return text(the_connection.logmsg);
}

/** The text of a heap string, which is freed. */
inline std::string taken(char *string)
{
    const unique_text owner{string};
    return text(string);
}
