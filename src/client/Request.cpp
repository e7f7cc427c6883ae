#include "client/Request.h"

namespace brvo {

Request::Request() {}

Request::~Request() {}

void Request::Execute() {}

void Request::Abort() {}

} // namespace brvo
