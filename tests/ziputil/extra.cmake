# The ISA-L decoder is also tested on its own, in builds that have it.
if(TARGET ziputil_inflate_isal)
  target_link_libraries(ziputil_inflate_compat_test PRIVATE ziputil_inflate_isal)
endif()
# The WinZip AES test checks the keystream against AES-ECB run directly.
target_link_libraries(ziputil_winzip_aes_test PRIVATE OpenSSL::Crypto)
