# The groups of exported entry points that are built and exported. A group is
# added here when its family is complete; its sources live in src/<family>/.
# bzip2 holds the stages (RLE, BWT, MTF, Z1Z2, dictionary), bzip2_huff the block
# Huffman coder and decoder built on them.
set(OZRDC_ALL_GROUPS core checksum deflate deflate_fastest inflate lz4 lz4hc lzo lzss bzip2 bzip2_huff zfp)
set(OZRDC_BUILT_GROUPS
  core
  checksum
  deflate
  deflate_fastest
  inflate
  lz4
  lz4hc
  lzo
  lzss
  bzip2
  zfp
  bzip2_huff
)
