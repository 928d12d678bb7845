#include "CMEventQueueRequest.h"

CMEventQueueRequest::~CMEventQueueRequest() = default;

bool CMEventQueueRequest::mayRead(const CMPath&) const
{
    return true;
}
