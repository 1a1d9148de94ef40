# Included by the consumer's project(): asks for the next minor release before it asks itself.
find_package(vask_ops 0.2 REQUIRED)
