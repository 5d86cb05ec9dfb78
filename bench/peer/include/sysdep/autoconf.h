/* SPDX-License-Identifier: Apache-2.0 */
/* What BIRD's configure would have found on this machine, for the few of
 * its files that the side-by-side program compiles (x86-64 Linux, glibc). */
#define CPU_LITTLE_ENDIAN 1
#define HAVE_THREAD_LOCAL 1
#define USE_PTHREADS 1
#define HAVE_MMAP 1
#define HAVE_ALLOCA_H 1
#define SYSCONF_INCLUDE "./sysdep/cf/linux.h"
