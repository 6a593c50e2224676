// taze_impl
