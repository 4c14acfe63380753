#pragma once
// Everything a module of the system needs from the middleware.

#include <ka/anyfunction.hpp>
#include <ka/anyvalue.hpp>
#include <ka/dynamicobjectbuilder.hpp>
#include <ka/eventloop.hpp>
#include <ka/future.hpp>
#include <ka/log.hpp>
#include <ka/object.hpp>
#include <ka/objecttypebuilder.hpp>
#include <ka/servicewatcher.hpp>
#include <ka/session.hpp>
#include <ka/signal.hpp>
