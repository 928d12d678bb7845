#include "CMEventQueueRequest.h"

CMEventQueueRequest::~CMEventQueueRequest() = default;
