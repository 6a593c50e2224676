// taze_file
