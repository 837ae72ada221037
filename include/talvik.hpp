// libtalvikmpi: relaxed word mover's distance between collections of documents, and nearest
// neighbours with it, on CPU threads or GPUs, in one or many MPI processes.
//
// The one public header.  It declares every exported function and global of the namespace talvik.
//
// Conventions of the whole interface
//   * Matrices are dense 32-bit floats, row-major: row r of a matrix with c columns starts at r*c.
//   * A function with the suffix _cpu belongs to the CPU engine; a suffix 2 marks the query side.
//   * The caller owns every array that it passes; engines copy what they keep, unless stated.
//   * "Collective" functions must be entered by every process of the run, in the same order.
//   * One thread per process calls the library; its functions start teams of threads themselves.
//   * A failure that a run cannot survive prints one line on standard output and ends the process
//     with status 1; the library defines no exception types.  Exhausted memory outside the engines
//     raises std::bad_alloc or std::bad_array_new_length.
#ifndef TALVIK_HPP
#define TALVIK_HPP

#include <map>
#include <string>
#include <utility>
#include <vector>

#define TALVIK_VERSION_MAJOR 0
#define TALVIK_VERSION_MINOR 1
#define TALVIK_VERSION_PATCH 0
#define TALVIK_VERSION "0.1.0"

#if defined(__GNUC__)
#define TALVIK_API __attribute__((visibility("default")))
#else
#define TALVIK_API
#endif

/// Relaxed word mover's distances and nearest-neighbour queries.
namespace talvik {

/// @name Types
/// @{

/// A bag of weighted words: (word index, weight) entries in stored order.
using Document = std::vector<std::pair<unsigned int, float>>;

/// A sequence of documents; a range (first, count) names documents first .. first+count-1.
using DocumentSet = std::vector<Document>;

/// One value per document: class labels, or document identifiers.
using LabelList = std::vector<unsigned long>;

/// Word text to word index.
using VocabularyMap = std::map<std::string, int>;

/// @}
/// @name Settings
/// The host program sets them before a run; the library reads them whenever it needs them.
/// @{

/// The number of threads of every team on the CPU (initially 8).
extern TALVIK_API int num_cpu_threads;

/// Word distances are 1 - dot product (initially false).  Takes precedence over
/// normalize_embeddings.
extern TALVIK_API bool use_cosine;

/// Engines scale embedding rows to unit length when they copy them (initially false); a zero row
/// stays zero.
extern TALVIK_API bool normalize_embeddings;

/// A finished batch of a query run, the argument of batch_finished.
struct BatchResult {
  int first_query;         ///< index of the batch's first document in the query collection
  int num_queries;         ///< documents of the batch
  int end_query;           ///< one past the last document that this process runs in this pass
  int k;                   ///< neighbours per query; 0 if there are no lists
  const int* neighbours;   ///< num_queries x k resident document numbers, nearest first, or null
  const float* distances;  ///< num_queries x k distances, ascending, or null
};

/// Called on every process at the end of every batch of a query run, unless null (the initial
/// value).  In top-k mode, process 0 of a split-resident run and every process of a scale-out run
/// receive the lists; all other calls are without lists.  In the two-way runs the batches of the
/// first direction (without lists) come before those of the second.  The arrays are valid during
/// the call only; the function must not call the library and must not throw.
extern TALVIK_API void (*batch_finished)(const BatchResult& batch, void* context);

/// The second argument of batch_finished (initially null); owned by the host program.
extern TALVIK_API void* batch_finished_context;

/// @}
/// @name Process identity
/// Zero until init_mpi has run; num_procs == 0 means that the process group is not set up.
/// @{

extern TALVIK_API int myid;             ///< rank in MPI_COMM_WORLD
extern TALVIK_API int num_procs;        ///< processes in MPI_COMM_WORLD
extern TALVIK_API int local_id;         ///< rank among the processes of this node
extern TALVIK_API int num_local_procs;  ///< processes of this node

/// @}
/// @name Distribution info
/// The split of one collection into contiguous groups, one per process.  Each pointer is null, or
/// points to num_procs ints.  load_balancing makes them, cleanup_distribution_info releases them.
/// @{

extern TALVIK_API int* grp_start;        ///< first document of group p
extern TALVIK_API int* grp_length;       ///< documents of group p
extern TALVIK_API int* grp_data_start;   ///< entries in the groups before p
extern TALVIK_API int* grp_data_length;  ///< entries of group p

/// @}
/// @name Collections and their compressed form
/// @{

/// Converts a range of documents to compressed sparse rows.
/// @param docs        the collection; every range must lie inside it
/// @param first,count the range; with count <= 0 only start[0] = 0 is written
/// @param[out] ind    word index of each entry of the range, in stored order
/// @param[out] start  count+1 offsets relative to the range, start[0] = 0
/// @param[out] weight weight of each entry
/// @return 0
TALVIK_API int setup_raw_data(const DocumentSet& docs, int first, int count, int* ind, int* start,
                              float* weight);

/// Converts a range of documents to vector form: one embedding row per entry.
/// @param embeddings  row w (vec_size floats) belongs to word w
/// @param vec_size    floats per embedding row
/// @param docs        the collection; word indices must be below the number of embedding rows
/// @param first,count the range; with count <= 0 only start[0] = 0 is written
/// @param[out] X      entries x vec_size; row r is a copy of the row of entry r's word
/// @param[out] start  count+1 offsets relative to the range
/// @param[out] weight weight of each entry
/// @return 0
TALVIK_API int setup_vectors(float* embeddings, int vec_size, const DocumentSet& docs, int first,
                             int count, float* X, int* start, float* weight);

/// Shrinks an embedding matrix to the words that a range of documents uses and renumbers those
/// words, keeping their order, in the documents of the range (only there).
/// @param voc_size             rows of embeddings; every word index of the range is below it
/// @param embeddings           voc_size x vec_size, only read
/// @param[out] comp_voc_size   number of distinct words of the range
/// @param[out] comp_embeddings new comp_voc_size x vec_size array, released by the caller with
///                             delete[]; never null
/// @param vec_size             floats per embedding row
/// @param docs                 rewritten in place inside the range
/// @param first,count          the range
/// @return 1
TALVIK_API int compress_vocabulary(int voc_size, float* embeddings, int* comp_voc_size,
                                   float** comp_embeddings, int vec_size, DocumentSet& docs,
                                   int first, int count);

/// Does the same for the union of two ranges, so that both collections share one numbering.
/// @return 1
TALVIK_API int compress_vocabulary_cosine(int voc_size, float* embeddings, int* comp_voc_size,
                                          float** comp_embeddings, int vec_size, DocumentSet& docs1,
                                          int first1, int count1, DocumentSet& docs2, int first2,
                                          int count2);

/// The wall-clock time in seconds since the epoch.
TALVIK_API double When();

/// @}
/// @name Distribution of a collection over the processes
/// @{

/// Splits a collection into num_procs contiguous groups of about equal numbers of entries and
/// fills the distribution info.  A group takes documents until it holds entry_count / num_procs
/// entries.  If its last document makes it a quarter too large, and is not its only one, the group
/// gives it back.  The last group takes all remaining documents.  Groups may be empty.  Not
/// collective: every process computes the same split.
/// @param docs         the collection to split
/// @param doc_count    documents of docs
/// @param entry_count  entries of docs
/// @return 0
/// @pre init_mpi has run and no distribution info exists (it would leak)
TALVIK_API int load_balancing(const DocumentSet& docs, int doc_count, int entry_count);

/// Releases the distribution info and sets its four pointers to null.
TALVIK_API void cleanup_distribution_info();

/// @}
/// @name Process group
/// All of these work on MPI_COMM_WORLD, and all but init_mpi require that init_mpi has run.  All
/// are collective, except for finalize_mpi once MPI has ended.  MPI errors go to MPI's error
/// handler.
/// @{

/// Starts MPI unless the host program has done so, and prints one line that names the process, its
/// node and its rank there.  Outside Open MPI's launcher the local rank is 0 and the local size 1.
/// @param[out] rank,size             rank and number of processes
/// @param[out] local_rank,local_size rank and number of processes within this node
TALVIK_API void init_mpi(int* rank, int* size, int* local_rank, int* local_size);

/// Ends MPI unless it has ended.
TALVIK_API void finalize_mpi();

/// Waits for all processes.
TALVIK_API void barrier_mpi();

/// Element-wise sum of count ints over all processes, received by every process.  Before MPI has
/// been initialised this process is the only one.
TALVIK_API void reduce_mpi_sum_int(void* send, void* receive, int count);

/// Element-wise minimum of count floats over all processes, received by every process.
TALVIK_API void reduce_mpi_min_float(void* send, void* receive, int count);

/// Copies length bytes from process root to all.
TALVIK_API void broadcast_mpi(void* buffer, int length, int root);

/// Every process contributes the grp_length[myid] elements of items from grp_start[myid] on, and
/// receives the elements of all other processes at theirs.
TALVIK_API void all_gather_mpi(int* items);

/// Finds the k nearest resident documents of every query over all processes.  Collective.
/// @param num_queries  rows of dist, the same on every process
/// @param n            resident documents of this process (columns of dist), may be 0
/// @param k            list length, the same on every process; not above the resident documents
///                     of all processes together
/// @param dist         num_queries x n, only read
/// @param[out] ind_out num_queries x k; on process 0 global document numbers, nearest first, of
///                     equal distances the lower number first; on the others their own candidates,
///                     padded with -1
/// @param[out] val_out num_queries x k distances, ascending; padding is 1e6
TALVIK_API void sort_cpu_parallel(int num_queries, int n, int k, float* dist, int* ind_out,
                                  float* val_out);

/// Finds the k-th smallest of the num_procs x k values of all processes.  Collective.
/// @param k     at least 1, the same on every process
/// @param vals  k values of this process
/// @return the same value on every process
TALVIK_API float compute_kth_parallel(int k, float* vals);

/// @}
/// @name Query pipelines
/// Their common parameters:
///   voc_size, embeddings, vec_size   the embedding matrix, voc_size x vec_size, only read
///   k                 neighbours per query, at most the resident collection's size; below 1 the
///                     lists are empty
///   delta_iterations  capacity steps: 0 = every word sends its whole weight to the nearest word;
///                     t > 0 = each of the t nearest words takes at most its own weight, and the
///                     rest goes on to the next one
///   precompute        word distances come from an attached ground-distance matrix; embeddings
///                     are then not used
///   docs1, labels1, num_docs1, num_words1   resident collection, a label per document, its
///                     numbers of documents and entries
///   docs2, labels2, num_docs2, num_words2   query collection, in the same form
///   compute_topk      true: neighbour lists into a result file; false: all distances
///   output_file       path of the result file
///   use_gpu           true: the GPU engine computes the distances; false: the CPU engine.  Process
///                     p of a node uses device p; runs with precompute use the device selected last
///
/// A result line is: "query label", "neighbour label", "distance" (six digits after the point).
/// Queries come in order, their neighbours from near to far.  If a result file cannot be created or
/// written in full, the whole job ends with status 1.
/// @{

/// Split-resident run: the resident collection is split over the processes, each process runs all
/// queries against its group, and process 0 writes the merged lists.  Init, query and cleanup in
/// one call.  Collective.
/// @param[out] D_out  full-matrix mode: receives a calloc'ed matrix, released by the caller with
///                    free(): D_out[i*num_docs2 + q] = distance from query q to the i-th document
///                    of this process's group (grp_length[myid] rows).  Top-k mode: not written.
///                    Never read; a run that an exception ends leaves it as it was or null.
/// @return 0
TALVIK_API int rwmd2_parallel(int voc_size, float* embeddings, int vec_size, int k,
                              int delta_iterations, bool precompute, DocumentSet docs1,
                              LabelList labels1, int num_docs1, int num_words1, DocumentSet docs2,
                              LabelList labels2, int num_docs2, int num_words2, float** D_out,
                              bool compute_topk, const char* output_file, bool use_gpu);

/// Loads this process's group of the resident collection into the engine, and sets up the process
/// group and the split unless they exist.  Collective on first use.
/// @return 0; 1 with use_gpu
TALVIK_API int rwmd2_parallel_init(int voc_size, float* embeddings, int vec_size, bool precompute,
                                   DocumentSet docs1, LabelList labels1, int num_docs1,
                                   int num_words1, bool use_gpu);

/// Runs a query collection against the loaded group; may be called several times.  Collective in
/// top-k mode.
/// @return full-matrix mode: bytes of *D_out, truncated to int; top-k mode: 0
TALVIK_API int rwmd2_parallel_query(float* embeddings, int vec_size, int k, int delta_iterations,
                                    bool precompute, int num_docs1, LabelList labels1,
                                    DocumentSet docs2, LabelList labels2, int num_docs2,
                                    int num_words2, float** D_out, bool compute_topk,
                                    const char* output_file, bool use_gpu);

/// Releases what rwmd2_parallel_init loaded; the split and the process group stay.
/// @return 0; 1 with use_gpu
TALVIK_API int rwmd2_parallel_cleanup(bool use_gpu, bool precompute);

/// Scale-out run: every process holds the whole resident collection, the query collection is
/// split, and each process answers its own group without communication.  Distances are merged into
/// the caller's matrix by maximum, and neighbours are ranked by the merged values.  Collective on
/// first use.
/// @param[in,out] D_max  grp_length[myid] x num_docs1 over this process's query group, owned by the
///                       caller: D_max[r*num_docs1 + i]; each value becomes the larger of itself
///                       and the computed distance; a computed NaN leaves it as it is
/// @param output_file    top-k mode: each process writes output_file + ".thread" + local_id + "-" +
///                       myid
/// @return 0
/// @pre distribution info, if present, describes docs2; if absent, docs2 is split here
TALVIK_API int rwmd2_scaleout_wrapper(int voc_size, float* embeddings, int vec_size, int k,
                                      int delta_iterations, bool precompute, DocumentSet docs1,
                                      LabelList labels1, int num_docs1, int num_words1,
                                      DocumentSet docs2, LabelList labels2, int num_docs2,
                                      int num_words2, float* D_max, bool compute_topk,
                                      const char* output_file, bool use_gpu);

/// Loads the whole resident collection into the engine, and sets up the process group unless it
/// exists.  Collective on first use.
/// @return 0; 1 with use_gpu
TALVIK_API int rwmd2_scaleout_init(int voc_size, float* embeddings, int vec_size, bool precompute,
                                   DocumentSet docs1, LabelList labels1, int num_docs1,
                                   int num_words1, bool use_gpu);

/// Runs this process's group of a query collection.  Not collective.
/// @return 0
TALVIK_API int rwmd2_scaleout_query(float* embeddings, int vec_size, int k, int delta_iterations,
                                    bool precompute, int num_docs1, LabelList labels1,
                                    DocumentSet docs2, LabelList labels2, int num_docs2,
                                    int num_words2, float* D_max, bool compute_topk,
                                    const char* output_file, bool use_gpu);

/// Releases what rwmd2_scaleout_init loaded.
/// @return 0; 1 with use_gpu
TALVIK_API int rwmd2_scaleout_cleanup(bool use_gpu, bool precompute);

/// @}
/// @name Two-way runs
/// For every pair the larger of the two directions, and neighbour lists ranked by it.  Here docs1
/// are the documents that get neighbours, split over the processes, and docs2 is the collection in
/// which they are searched.  The split of an earlier run is dropped first; the split of docs1 stays
/// afterwards.  Collective.  Parameters that are not described are those of the query pipelines.
/// @{

/// Two-way relaxed word mover's distance.
/// @param k            neighbours (in docs2) per docs1 document
/// @param[out] D_out   receives a calloc'ed matrix, released by the caller with free():
///                     D_out[r*n + q] = distance between the r-th docs1 document of this process's
///                     group and document q of the n documents of docs2.  Never read; a run that
///                     an exception ends leaves it as it was or null
/// @param compute_topk write the lists, one file per process, named as in a scale-out run
/// @return 1
TALVIK_API int rwmd2_twoway_wrapper(int voc_size, float* embeddings, int vec_size, int k,
                                    int delta_iterations, DocumentSet docs1, LabelList labels1,
                                    DocumentSet docs2, LabelList labels2, float** D_out,
                                    bool compute_topk, const char* output_file, bool use_gpu);

/// The same, over the distances between all words of both collections, computed once beforehand.
/// Every process holds as many floats as the square of the shared vocabulary's size, and prints
/// that size on a line.
/// @return 1
TALVIK_API int remd2_twoway_wrapper(int voc_size, float* embeddings, int vec_size, int k,
                                    int delta_iterations, DocumentSet docs1, LabelList labels1,
                                    DocumentSet docs2, LabelList labels2, float** D_out,
                                    bool compute_topk, const char* output_file, bool use_gpu);

/// The same, over word distances from the caller.
/// @param voc_size  words; every word index of both collections is below it
/// @param D_ground  voc_size x voc_size, only read, alive during the call.  Which of D[u][v] and
///                  D[v][u] is read depends on the engine function, so it should be symmetric.
/// @return 1
TALVIK_API int remd2_twoway_ground(int voc_size, float* D_ground, int k, int delta_iterations,
                                   DocumentSet docs1, LabelList labels1, DocumentSet docs2,
                                   LabelList labels2, float** D_out, bool compute_topk,
                                   const char* output_file, bool use_gpu);

/// @}
/// @name CPU engine: data
/// The engine's copies of one resident collection, one vocabulary and one query batch.  A copy must
/// be removed before data of the same kind is copied again.  All return 1.
/// @{

/// Copies a resident collection, as compressed sparse rows.
/// @param n         entries
/// @param ind       n word indices, below the vocabulary size
/// @param weight    n weights
/// @param num_docs_ documents
/// @param start     num_docs_+1 offsets, start[0] = 0, non-decreasing
TALVIK_API int copy_raw_data_cpu(int n, int* ind, float* weight, int num_docs_, int* start);

/// Copies a query batch in index form, for runs on ground distances; parameters as
/// copy_raw_data_cpu.
TALVIK_API int copy_raw_data2_cpu(int n2, int* ind2, float* weight2, int num_docs2_, int* start2_);

/// Copies the vocabulary, v_size x m embedding rows, and keeps their squared norms, taken before
/// normalisation.
TALVIK_API int copy_vocabulary_cpu(int v_size, int m, float* W);

/// Copies a query batch in vector form.
/// @param n2         entries
/// @param m          floats per row, as in the vocabulary
/// @param X2         n2 x m, one row per entry
/// @param weight2    n2 weights
/// @param num_docs2_ documents
/// @param start2_    num_docs2_+1 offsets
TALVIK_API int copy_vectors2_cpu(int n2, int m, float* X2, float* weight2, int num_docs2_,
                                 int* start2_);

TALVIK_API int remove_raw_data_cpu();    ///< Releases the resident collection.
TALVIK_API int remove_raw_data2_cpu();   ///< Releases a query batch in index form.
TALVIK_API int remove_vocabulary_cpu();  ///< Releases the vocabulary.
TALVIK_API int remove_vectors2_cpu();    ///< Releases a query batch in vector form.

/// @}
/// @name CPU engine: distances
/// @{

/// Computes the distances from every resident document to every query document of the batch, plain
/// or with one capacity step.  Every word of a resident document sends its weight to the nearest
/// word of the query document, at the cost weight x word distance.  With a capacity step that word
/// takes at most its own weight, and the rest goes to the second-nearest word (1e30 away if there
/// is none).  A query document without entries is 1e30 away per unit of weight.
/// @param[out] Z            num_docs2 x num_docs: Z[d*num_docs + i] = distance from resident
///                          document i to query document d
/// @param delta_iterations  > 0: one capacity step; else none
/// @param precompute        word distances are those of the attached matrix, D[v*voc_size + w]
///                          for the query entry's word w; the batch must be in index form
/// @return 1.  Not collective.  If a working buffer cannot be allocated, the process ends.
TALVIK_API int ed_min_vocab_cpu(float* Z, int delta_iterations, bool precompute);

/// The same with delta_iterations capacity steps: each of the nearest query words in turn takes at
/// most its own weight, and the remaining weight goes to the next-nearest word after the last step.
/// For a query document of n entries the number of nearest words, delta_iterations + 1, is halved
/// (integer division) until it is at most n.
/// @param[out] Z            as ed_min_vocab_cpu
/// @param delta_iterations  capacity steps; negative as 0
/// @param precompute        as ed_min_vocab_cpu, but from D[w*voc_size + v] for the query
///                          entry's word w
/// @return 1.  Not collective.  If a working buffer cannot be allocated, the process ends.
TALVIK_API int ed_min_vocab_cpu_multi(float* Z, int delta_iterations, bool precompute);

/// @}
/// @name CPU engine: ground distances
/// @{

/// Computes the distances between all pairs of words of the loaded vocabulary, by the current
/// settings.
/// @param[out] D_ground voc_size x voc_size, owned by the caller
/// @return 1
TALVIK_API int compute_ground_distances_cpu(float* D_ground);

/// Attaches a ground-distance matrix and sets the engine's vocabulary size.  The matrix is kept by
/// pointer and never freed here; it must stay alive and unchanged until it is detached.
/// @param voc_size_ rows and columns of D_ground
/// @param D_ground  voc_size_ x voc_size_
/// @return 1
TALVIK_API int copy_ground_distances_cpu(int voc_size_, float* D_ground);

/// Detaches the matrix.
/// @return 1
TALVIK_API int remove_ground_distances_cpu();

/// @}
/// @name CPU engine: selection and gathers
/// Each runs on one team of num_cpu_threads threads.  Of equal values the lower index comes first;
/// NaN ranks last.
/// @{

/// Whether a.first < b.first; false if either is NaN.
TALVIK_API bool isSmaller(std::pair<float, int> a, std::pair<float, int> b);

/// Whether a.first < b.first; false if either is NaN.
TALVIK_API bool isSmaller(std::pair<double, int> a, std::pair<double, int> b);

/// Selects the k smallest values of every row, ascending, with their columns.
/// @param rows,cols    shape of data
/// @param data         rows x cols, only read
/// @param k            1 <= k <= cols
/// @param[out] ind_out rows x k columns, 0-based within the row
/// @param[out] val_out rows x k values
/// @return 1
TALVIK_API int sort_cpu(int rows, int cols, float* data, int k, int* ind_out, float* val_out);

/// Selects the k smallest values of every column, ascending, with the weights of their rows.
/// @param k              1 <= k <= rows
/// @param rows,cols      shape of values
/// @param values         rows x cols, only read
/// @param[out] values_k  k x cols: values_k[r*cols + c] = (r+1)-th smallest value of column c
/// @param weights        one per row
/// @param[out] weights_k k x cols: the weight of that row
/// @return 1
TALVIK_API int topk_single(int k, int rows, int cols, float* values, float* values_k,
                           float* weights, float* weights_k);

/// Splits the weight of every resident entry p at the capacity of its word v:
/// weight_delta[p] = min(weight_in[p], weights_min[v]), weight_updated[p] = the remaining weight.
/// weight_in and weight_updated may be the same array.
TALVIK_API void update_weights_delta(float* weight_in, float* weights_min, float* weight_updated,
                                     float* weight_delta);

/// out[i*row_len + j] = matrix[row_ind[i]*row_len + j]; num_cols is not used.
TALVIK_API void gather_matrix_rows_cpu(int num_rows, int num_cols, int row_len, float* matrix,
                                       int* row_ind, float* out);

/// out[i*num_cols + j] = matrix[i*src_cols + col_ind[j]].
TALVIK_API void gather_matrix_columns_cpu(int num_rows, int num_cols, int src_cols, float* matrix,
                                          int* col_ind, float* out);

/// @}
/// @name GPU engine: state
/// The copy functions below fill it; host programs only read it.  Names that end in _dev are device
/// memory.  The remove functions reset D_ground_dev alone and leave the other freed pointers as
/// they are.
/// @{

extern TALVIK_API int dev_id;           ///< last choice of set_device_id or copy_vocabulary
extern TALVIK_API int voc_size;         ///< vocabulary words
extern TALVIK_API int vec_size;         ///< floats per embedding row
extern TALVIK_API float* W_dev;         ///< voc_size x vec_size; unit rows if normalize_embeddings
extern TALVIK_API float* RW_dev;        ///< voc_size squared norms; null if normalize_embeddings
extern TALVIK_API int num_docs;         ///< resident documents
extern TALVIK_API int num_vecs;         ///< resident entries
extern TALVIK_API int* start_dev;       ///< num_docs + 1 offsets
extern TALVIK_API int* ind_dev;         ///< num_vecs word indices
extern TALVIK_API float* weight_dev;    ///< num_vecs weights
extern TALVIK_API int num_docs2;        ///< query documents of the batch
extern TALVIK_API int num_vecs2;        ///< query entries of the batch
extern TALVIK_API int* start2;          ///< num_docs2 + 1 offsets: the caller's own host array
extern TALVIK_API int* ind2_dev;        ///< num_vecs2 word indices; index form
extern TALVIK_API float* weight2_dev;   ///< num_vecs2 weights
extern TALVIK_API float* X2_dev;        ///< num_vecs2 x vec_size, a row per entry; vector form
extern TALVIK_API float* Rn2_dev;       ///< num_vecs2 squared norms, null if normalize_embeddings
extern TALVIK_API float* D_ground_dev;  ///< voc_size x voc_size word distances, or null

/// @}
/// @name GPU engine: data
/// The engine's copies of one resident collection, one vocabulary and one query batch in device
/// memory, made on the calling thread's device.  A copy must be removed, with the same
/// normalize_embeddings, before data of the same kind is copied again.  All return 1 unless stated.
/// If an allocation or copy fails, a line says which, and the process ends with status 1.
/// @{

/// Prints s, the requested size and the device's free and total memory, a line each, and ends the
/// process with status 1.
/// @param size bytes
TALVIK_API void report_memory_allocation_error(unsigned long size, std::string s);

/// The number of devices on this machine that the GPU engine can use.
TALVIK_API int count_gpu_devices();

/// Whether this build runs the GPU engine on an emulated device, on the CPU: correct and slow.
TALVIK_API bool gpu_is_emulated();

/// Selects a device for the calling thread.
TALVIK_API int set_device_id(int device_id);

/// Selects a device and copies the vocabulary to it.
/// @param device_id   counted from 0
/// @param v_size      words
/// @param m           floats per row
/// @param[in,out] W   v_size x m; scaled to unit length in place if normalize_embeddings is set
TALVIK_API int copy_vocabulary(int device_id, int v_size, int m, float* W);

/// Copies a resident collection; parameters as copy_raw_data_cpu.
TALVIK_API int copy_raw_data(int n, int* ind, float* weight, int num_docs_, int* start);

/// Copies a query batch in index form, for runs on ground distances.
/// @param n2         entries
/// @param ind2       n2 word indices
/// @param weight2    n2 weights
/// @param num_docs2_ documents
/// @param start2_    num_docs2_+1 offsets, kept by pointer: unchanged until the batch is removed
TALVIK_API int copy_raw_data2(int n2, int* ind2, float* weight2, int num_docs2_, int* start2_);

/// Copies a query batch in vector form.
/// @param n2         entries
/// @param m          floats per row, as in the vocabulary
/// @param[in,out] X2 n2 x m, one row per entry; scaled to unit length in place if
///                   normalize_embeddings is set
/// @param weight2    n2 weights
/// @param num_docs2_ documents
/// @param start2_    num_docs2_+1 offsets, kept by pointer: unchanged until the batch is removed
TALVIK_API int copy_vectors2(int n2, int m, float* X2, float* weight2, int num_docs2_,
                             int* start2_);

TALVIK_API int remove_raw_data();    ///< Frees the resident collection.
TALVIK_API int remove_raw_data2();   ///< Frees a query batch in index form.
TALVIK_API int remove_vocabulary();  ///< Frees the vocabulary.
TALVIK_API int remove_vectors2();    ///< Frees a query batch in vector form.

/// @}
/// @name GPU engine: distances
/// @{

/// Computes the distances from every resident document to every query document of the batch.  With
/// capacity steps, each of the nearest query words in turn takes at most its own weight, and the
/// rest goes on to the next one.  The number of nearest words is the smallest power of two above
/// delta_iterations, at most 16, halved until it is at most the query document's number of entries;
/// there is one step less, and at most delta_iterations.  A query document without entries is 1e30
/// away per unit of weight.
/// @param[out] Z            num_docs2 x num_docs, host memory: Z[q*num_docs + d] = distance from
///                          resident document d to query document q
/// @param delta_iterations  capacity steps; negative as 0
/// @param precompute        word distances are those of D_ground_dev, in the query word's row; the
///                          batch must be in index form
/// @return 1.  Not collective.  If a device call fails, a line says so, and the process ends.
TALVIK_API int ed_min_vocab_multi(float* Z, int delta_iterations, bool precompute);

/// @}
/// @name GPU engine: ground distances
/// @{

/// Computes the distances between all pairs of words of the loaded vocabulary, by the current
/// settings.
/// @pre no matrix is on the device
/// @param[out] D_ground voc_size x voc_size, owned by the caller; or null
/// @return 1
TALVIK_API int compute_ground_distances(float* D_ground);

/// Copies a matrix to the device, unless one is there already, which then stays.  Sets voc_size.
/// @param voc_size_ rows and columns of D_ground
/// @param D_ground  voc_size_ x voc_size_, only read
/// @return 1
TALVIK_API int copy_ground_distances(int voc_size_, float* D_ground);

/// Frees the matrix; D_ground_dev is null afterwards.
/// @return 1
TALVIK_API int remove_ground_distances();

/// @}
/// @name Files
/// @{

/// Reads a whole file into a new array of size+1 bytes, the last one zero.
/// @param path        the file
/// @param[out] buffer the array, released by the caller with delete[]; untouched on failure
/// @param binary      open mode; no difference on POSIX systems
/// @return bytes read; 0 if the file cannot be opened or read; for an empty file 0 or less after
///         the line "File size is zero" on standard output
TALVIK_API long long ReadFileIntoBuffer(const char* path, char** buffer, bool binary);

/// Reads a whole file into a string; in all other respects like ReadFileIntoBuffer.
TALVIK_API long long ReadFileIntoString(const char* path, std::string& text, bool binary);

/// Scales the weights of every document so that their sum is scale; empty documents and documents
/// whose weights sum to zero stay as they are.
TALVIK_API void L1norm(DocumentSet& docs, double scale);

/// Reverses the order of 4 bytes.
TALVIK_API void swap_word(unsigned char* word);

/// Reads an embedding file: two decimal integers (records, floats per vector), then per record an
/// optional newline, the word, one space and the vector as little-endian 32-bit floats.  Every
/// newline takes the first byte off the word: the one in front, and in a file with carriage returns
/// "\r" instead.  Rows are scaled to unit length; a zero row stays zero.
/// @param path             the file
/// @param write_vocabulary true: the words are written to vocabulary_file, one per line, and voc
///                         stays as it is; false: they are added to voc
/// @param vocabulary_file  see write_vocabulary
/// @param[in,out] voc      a new word gets the map's size as its index
/// @param[out] vectors     new voc_size x vec_size array in file order, released with delete[]
/// @param[out] vec_size,voc_size the header's values
/// @return false if the file cannot be read, its header is not two integers or it is shorter than
///         its header says (the last two with a line on standard output); nothing is stored then
/// @throws std::bad_array_new_length if voc_size * vec_size is negative or beyond any array; the
///         header's values are stored then
TALVIK_API bool parse_embedding_file(const char* path, bool write_vocabulary,
                                     const char* vocabulary_file, VocabularyMap& voc,
                                     float** vectors, long long& vec_size, long long& voc_size);

/// Reads a vocabulary file, one word per line, into voc.
/// @return entries of voc afterwards; 0 if the file cannot be read
TALVIK_API int parse_vocabulary(const char* path, VocabularyMap& voc);

/// Lists the regular files below a directory, depth first, in the order of the file system.
/// @param dir        start
/// @param[out] files names are appended
/// @param[out] dirs  the directory string of each file is appended: dir as given, or the parent's
///                   string + "/" + name + "/"; path = dirs[i] + files[i]
/// @return false if dir cannot be opened
TALVIK_API bool get_docs_20(std::string dir, std::vector<std::string>& files,
                            std::vector<std::string>& dirs);

/// Turns a text into a document.  Tokens are separated by single spaces; the punctuation ".,:;'()"
/// is trimmed off both ends, the rest is cut at its first apostrophe, looked up in voc as it is
/// (without case folding) and counted.
/// @param text       the text
/// @param voc        words that are not in it are ignored
/// @param[in,out] doc entries are appended; then all its weights are normalised
/// @param max_words  the most frequent words are kept, of equal counts the lower index; negative
///                   as 0
/// @param skip_index words with this index or a lower one are ignored
/// @param norm_type  1: weights sum to 1; else: unit Euclidean length
/// @return entries appended
TALVIK_API int parse_single_doc(std::string text, VocabularyMap& voc, Document& doc, int max_words,
                                int skip_index, int norm_type);

/// Reads a corpus with one directory per class and one file per document, named by a decimal
/// number.  Unreadable files and files without a known word are left out.
/// @param dir         root; a file directly in it is read only if dir ends with "/"
/// @param max_words,skip_index as parse_single_doc
/// @param[out] docs   documents are appended
/// @param[out] ids    the file names as numbers are appended
/// @param[out] labels class numbers are appended: 0, 1, ... in the order in which the file system
///                    lists the directories
/// @param[out] num_docs,num_words documents and entries read by this call
/// @param voc         the vocabulary
/// @return num_docs; 0 if dir cannot be opened
/// @throw std::invalid_argument, std::out_of_range ("stoull") for a file name that is no number
TALVIK_API int parse_docs_20(const char* dir, int max_words, int skip_index, DocumentSet& docs,
                             LabelList& ids, LabelList& labels, int& num_docs, int& num_words,
                             VocabularyMap& voc);

/// Whether a's weight is greater than b's; false if either is NaN.
TALVIK_API bool isGreater(std::pair<unsigned int, float> a, std::pair<unsigned int, float> b);

/// Reads an IDX file of 28 x 28 images.  A document has an entry per non-zero pixel (word
/// row*28 + column), with weights that sum to 1; a blank image gives an empty document.
/// @param path             the file
/// @param[in,out] docs     documents are appended
/// @param[in,out] vectors  null or an array that is released; receives a new 784 x 2 array, word
///                         row*28 + column at (row, column), released by the caller with delete[]
/// @param[out] vec_size,voc_size 2 and 784
/// @return false, with nothing appended, if the file cannot be read, its images have another size
///         or it is shorter than its header says (the last two with "Verification failed!!!")
TALVIK_API bool parse_mnist_images(const char* path, DocumentSet& docs, float** vectors,
                                   long long& vec_size, long long& voc_size);

/// Reads an IDX label file.
/// @param path           the file
/// @param[out] ids       0, 1, 2, ... are appended
/// @param[out] labels    the label bytes are appended
/// @return false, with nothing appended, if the file cannot be read or is shorter than its header
///         says (the latter with "Verification failed!!!")
TALVIK_API bool parse_mnist_labels(const char* path, LabelList& ids, LabelList& labels);

/// Reads images and labels: parse_mnist_images and parse_mnist_labels together.
/// @param image_path,label_path the files
/// @param docs,vectors,vec_size,voc_size as parse_mnist_images
/// @param ids,labels            as parse_mnist_labels
/// @param[out] num_docs,num_words documents with entries among the labelled ones, and their entries
/// @return num_docs; 0 on failure or if there are more labels than images
TALVIK_API int parse_docs_mnist(const char* image_path, const char* label_path, DocumentSet& docs,
                                LabelList& ids, LabelList& labels, int& num_docs, int& num_words,
                                float** vectors, long long& vec_size, long long& voc_size);

/// @}
/// @name Evaluation
/// @{

/// Computes the fraction of neighbours that share the query's label, among the first 1, 2, 4, ...
/// and all scored neighbours, averaged over all queries of all processes.  Collective.
/// @param num_queries     queries of all processes together
/// @param k               length of a row of neighbours
/// @param neighbours      rows x k resident document numbers: num_queries rows or, where
///                        there is distribution info, this process's grp_length[myid] rows, which
///                        begin with query grp_start[myid]
/// @param query_labels    label of every query
/// @param resident_labels label of every resident document
/// @param skip_first      whether entry 0 of every row is left out
/// @param print_results   whether process 0 prints "Averaged accuracy results", a line per cut-off
///                        and an empty line
/// @return a value per cut-off; empty if no neighbour is scored
TALVIK_API std::vector<float> evaluate_topk_precision(int num_queries, int k, int* neighbours,
                                                      unsigned long* query_labels,
                                                      unsigned long* resident_labels,
                                                      bool skip_first, bool print_results);

/// @}

}  // namespace talvik

#endif  // TALVIK_HPP
