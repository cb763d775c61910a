// Which sources the running call asks.
#include "agent_sources.h"

namespace zorvik
{

int global_source_state = 0;

namespace
{

source_age newest = CLASSIC;

} // namespace

void begin_sources()
{
    newest = global_source_state > 0 ? CURRENT : CLASSIC;
}

void end_sources()
{
    newest = CLASSIC;
}

bool is_asked(source_age age)
{
    return age <= newest;
}

} // namespace zorvik
