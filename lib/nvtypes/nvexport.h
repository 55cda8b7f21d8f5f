#ifndef NVEXPORT_H
#define NVEXPORT_H

/* The shared libraries are compiled with hidden visibility: what carries NV_API is their
 * public interface, and nothing else of ours is exported. The static archives are compiled
 * separately with default visibility, so that the programs linking them keep the names of
 * library functions in their call stacks (-rdynamic). */
#if defined(__GNUC__) || defined(__clang__)
#define NV_API __attribute__((visibility("default")))
#else
#define NV_API
#endif

#endif
