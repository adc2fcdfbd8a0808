# The groups of exported entry points that are built and exported. A group is
# added here when its family is complete; its sources live in src/<family>/.
set(OZRDC_ALL_GROUPS core checksum deflate deflate_fastest inflate lz4 lz4hc lzo lzss bzip2 zfp)
set(OZRDC_BUILT_GROUPS
  core
  checksum
  lz4
  lz4hc
  lzo
  zfp
)
