import { defineConfig } from 'vite';

// Relative asset paths: the page works wherever sfcloud serve puts it.
export default defineConfig({
  base: './',
  build: { outDir: 'dist', emptyOutDir: true, chunkSizeWarningLimit: 1024 },
});
