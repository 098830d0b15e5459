# Packs the build tree into a folder of its own, as scripts/package.sh does,
# for the package tests: cmake -DCPACK=... -DBUILD=... -DDIR=... -P make_package.cmake
file(REMOVE_RECURSE "${DIR}")
execute_process(COMMAND "${CPACK}" --config "${BUILD}/CPackConfig.cmake" -B "${DIR}" RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cpack failed (${result})")
endif()
file(GLOB packages "${DIR}/*.deb")
list(LENGTH packages count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one package in ${DIR}, found ${count}: ${packages}")
endif()
# CPack's own copy of the tree is not needed once the package exists.
file(REMOVE_RECURSE "${DIR}/_CPack_Packages")
