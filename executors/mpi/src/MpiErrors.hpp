#pragma once

// Errors of the cluster pool. Texts in the host catalogue.

#include <foundation/core/except/Exception.hpp>

namespace KORVEX::mpipool {
// A function handle names a function that is not registered (argument: its name).
QZHOST_ERROR_TAG("KORVEX:mpipool", UnregisteredFunction)
// A function is registered twice under one name (argument: the name).
QZHOST_ERROR_TAG("KORVEX:mpipool", DuplicateFunction)
// An array of a class that cannot cross processes (argument: the class name).
QZHOST_ERROR_TAG("KORVEX:mpipool", UnsupportedArray)
// A pool asked for 0 workers, or more than the cluster has (arguments: the
// number asked for, the number of worker processes).
QZHOST_ERROR_TAG("KORVEX:mpipool", InvalidNumWorkers)
// The job has no worker processes.
QZHOST_ERROR_TAG("KORVEX:mpipool", NoWorkers)
// A second pool opened while one is open.
QZHOST_ERROR_TAG("KORVEX:mpipool", PoolAlreadyOpen)
// A pool opened on a worker process.
QZHOST_ERROR_TAG("KORVEX:mpipool", NotClient)
// A second cluster made in one process.
QZHOST_ERROR_TAG("KORVEX:mpipool", ClusterExists)
// serve() called on the client process (rank 0).
QZHOST_ERROR_TAG("KORVEX:mpipool", ServeOnClient)
// A message from another process could not be read (argument: the reason).
QZHOST_ERROR_TAG("KORVEX:mpipool", UnreadableMessage)
// The worker process that ran (or was to run) the work is gone (argument:
// its rank).
QZHOST_ERROR_TAG("KORVEX:mpipool", WorkerLost)
// Every worker process of the pool is gone.
QZHOST_ERROR_TAG("KORVEX:mpipool", NoWorkersLeft)
// A cluster made after the process's cluster ended: MPI starts once.
QZHOST_ERROR_TAG("KORVEX:mpipool", ClusterEnded)
// An error whose causes nest deeper than a message carries (argument: the
// deepest nesting sent).
QZHOST_ERROR_TAG("KORVEX:mpipool", CausesTooDeep)
} // namespace KORVEX::mpipool

namespace mpipool::errors {
template <class Tag>
using Error = foundation::core::except::Exception<Tag>;
using UnregisteredFunction = Error<::KORVEX::mpipool::UnregisteredFunction>;
using DuplicateFunction = Error<::KORVEX::mpipool::DuplicateFunction>;
using UnsupportedArray = Error<::KORVEX::mpipool::UnsupportedArray>;
using InvalidNumWorkers = Error<::KORVEX::mpipool::InvalidNumWorkers>;
using NoWorkers = Error<::KORVEX::mpipool::NoWorkers>;
using PoolAlreadyOpen = Error<::KORVEX::mpipool::PoolAlreadyOpen>;
using NotClient = Error<::KORVEX::mpipool::NotClient>;
using ClusterExists = Error<::KORVEX::mpipool::ClusterExists>;
using ServeOnClient = Error<::KORVEX::mpipool::ServeOnClient>;
using UnreadableMessage = Error<::KORVEX::mpipool::UnreadableMessage>;
using WorkerLost = Error<::KORVEX::mpipool::WorkerLost>;
using NoWorkersLeft = Error<::KORVEX::mpipool::NoWorkersLeft>;
using ClusterEnded = Error<::KORVEX::mpipool::ClusterEnded>;
using CausesTooDeep = Error<::KORVEX::mpipool::CausesTooDeep>;
} // namespace mpipool::errors
